// One queued direct-I/O job through the io_uring engine, for comparison with fio (see
// run_fio_comparison_direct.sh). Lays the file out first with a sequential write when it does not
// exist yet, then runs the job over the whole file and prints its figures as JSON:
//
//   vantorix_queued_io_bench FILE --size BYTES [--pattern sequential|random] [--direction read|write]
//                            [--block-size BYTES] [--depth N] [--seconds S] [--layout-only]
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/linux/IoUringQueuedFile.h"

using namespace vantorix;

namespace {

int usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s FILE --size BYTES [--pattern sequential|random] [--direction read|write]\n"
                 "       [--block-size BYTES] [--depth N] [--seconds S] [--layout-only]\n",
                 program);
    return 2;
}

int failed(const char* what, const FileError& error) {
    std::fprintf(stderr, "%s: %s (errno %d)\n", what, error.message.c_str(), error.code);
    return 1;
}

// Creates the file and writes it whole with random data, 1 MiB at a time eight deep.
int layOut(const std::string& path, std::uint64_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return failed("create", FileError{errno, std::strerror(errno)});
    ::close(fd);
    auto file = openIoUringQueuedFile(path);
    if (!file) return failed("open", file.error());
    QueuedJob layout;
    layout.pattern = QueuedJob::Pattern::sequential;
    layout.direction = QueuedJob::Direction::write;
    layout.blockSize = size % 1'048'576 == 0 ? 1'048'576 : 4096;
    layout.queueDepth = 8;
    layout.span = size;
    layout.byteLimit = size;
    if (auto written = (*file)->run(layout, {}, {}); !written) return failed("lay out", written.error());
    if (auto synced = (*file)->synchronize(); !synced) return failed("fsync", synced.error());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(argv[0]);
    const std::string path = argv[1];
    std::uint64_t size = 0;
    double seconds = 5;
    bool layoutOnly = false;
    QueuedJob job;
    for (int i = 2; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--layout-only") {
            layoutOnly = true;
            continue;
        }
        if (i + 1 >= argc) return usage(argv[0]);
        const std::string value = argv[++i];
        if (option == "--size") {
            size = std::stoull(value);
        } else if (option == "--pattern" && (value == "sequential" || value == "random")) {
            job.pattern = value == "random" ? QueuedJob::Pattern::random : QueuedJob::Pattern::sequential;
        } else if (option == "--direction" && (value == "read" || value == "write")) {
            job.direction = value == "write" ? QueuedJob::Direction::write : QueuedJob::Direction::read;
        } else if (option == "--block-size") {
            job.blockSize = static_cast<std::uint32_t>(std::stoul(value));
        } else if (option == "--depth") {
            job.queueDepth = static_cast<std::uint32_t>(std::stoul(value));
        } else if (option == "--seconds") {
            seconds = std::stod(value);
        } else {
            return usage(argv[0]);
        }
    }
    if (size == 0) return usage(argv[0]);

    if (::access(path.c_str(), F_OK) != 0) {
        if (const int status = layOut(path, size); status != 0) return status;
    }
    if (layoutOnly) return 0;

    auto file = openIoUringQueuedFile(path);
    if (!file) return failed("open", file.error());
    job.span = size / job.blockSize * job.blockSize;
    job.duration = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
    auto figures = (*file)->run(job, {}, {});
    if (!figures) return failed("run", figures.error());
    const double elapsed = figures->seconds > 0 ? figures->seconds : 1e-9;
    fmt::print("{{\"bytes\":{},\"operations\":{},\"seconds\":{:.6f},\"bytesPerSecond\":{:.1f},\"iops\":{:.1f}}}\n",
               figures->bytes, figures->operations, figures->seconds, static_cast<double>(figures->bytes) / elapsed,
               static_cast<double>(figures->operations) / elapsed);
    return 0;
}
