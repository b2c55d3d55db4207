#include "platform/linux/IoUringQueuedFile.h"

#include <fcntl.h>
#include <liburing.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <system_error>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

constexpr std::uint32_t kAlignment = 4096;
constexpr std::uint32_t kMaxQueueDepth = 256;
constexpr std::uint32_t kLargestRegisteredBlock = 128 * 1024;
constexpr auto kProgressInterval = std::chrono::milliseconds(10);

FileError errorFor(int code) { return FileError{code, std::generic_category().message(code)}; }

// xoshiro256**, seeded through splitmix64: fast enough to draw an offset per request and to fill
// write buffers with incompressible bytes.
class RandomBits {
public:
    explicit RandomBits(std::uint64_t seed) {
        for (auto& word : state_) {
            seed += 0x9e3779b97f4a7c15ULL;
            std::uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
            word = z ^ (z >> 31);
        }
    }

    std::uint64_t next() {
        const std::uint64_t result = rotate(state_[1] * 5, 7) * 9;
        const std::uint64_t t = state_[1] << 17;
        state_[2] ^= state_[0];
        state_[3] ^= state_[1];
        state_[1] ^= state_[2];
        state_[0] ^= state_[3];
        state_[2] ^= t;
        state_[3] = rotate(state_[3], 45);
        return result;
    }

    // Uniform in [0, bound) for bound > 0: draws below 2^64 mod bound are rejected, so every
    // remainder is equally likely.
    std::uint64_t below(std::uint64_t bound) {
        const std::uint64_t threshold = (std::uint64_t{0} - bound) % bound;
        for (;;) {
            const std::uint64_t draw = next();
            if (draw >= threshold) return draw % bound;
        }
    }

private:
    static std::uint64_t rotate(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    std::uint64_t state_[4];
};

std::uint64_t freshSeed() {
    std::random_device device;
    return (std::uint64_t{device()} << 32) ^ device();
}

struct FreeMemory {
    void operator()(std::byte* memory) const { std::free(memory); }
};

class IoUringQueuedFile final : public QueuedFile {
public:
    explicit IoUringQueuedFile(int fd) : fd_(fd), random_(freshSeed()) {}
    ~IoUringQueuedFile() override {
        if (fd_ >= 0) (void)close();
    }
    IoUringQueuedFile(const IoUringQueuedFile&) = delete;
    IoUringQueuedFile& operator=(const IoUringQueuedFile&) = delete;

    Result<Unit, FileError> startRing() {
        // Cooperative task running spares an interrupt per completion; kernels before 5.19 do
        // not know it and get a plain ring.
        int rc = io_uring_queue_init(kMaxQueueDepth, &ring_, IORING_SETUP_COOP_TASKRUN);
        if (rc == -EINVAL) rc = io_uring_queue_init(kMaxQueueDepth, &ring_, 0);
        if (rc < 0) return Failure{errorFor(-rc)};
        ringReady_ = true;
        fileRegistered_ = io_uring_register_files(&ring_, &fd_, 1) == 0;
        return Unit{};
    }

    Result<QueuedFigures, FileError> run(const QueuedJob& job, const std::function<bool()>& shouldStop,
                                         const std::function<void(std::uint64_t)>& progress) override;

    Result<Unit, FileError> truncate(std::uint64_t length) override {
        if (fd_ < 0) return Failure{errorFor(EBADF)};
        if (length > static_cast<std::uint64_t>(INT64_MAX)) return Failure{errorFor(EINVAL)};
        if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) return Failure{errorFor(errno)};
        return Unit{};
    }

    Result<Unit, FileError> synchronize() override {
        if (fd_ < 0) return Failure{errorFor(EBADF)};
        if (::fsync(fd_) != 0) return Failure{errorFor(errno)};
        return Unit{};
    }

    Result<Unit, FileError> close() override {
        if (fd_ < 0) return Failure{errorFor(EBADF)};
        exitRing();
        releaseBuffers();
        const int fd = fd_;
        fd_ = -1;
        if (::close(fd) != 0) return Failure{errorFor(errno)};
        return Unit{};
    }

private:
    // A ring lets go of its files in the background after it is closed, so a removed test file
    // would keep its blocks for a while after this object is gone. Unregistering the file first
    // lets go of it here and now.
    void exitRing() {
        if (!ringReady_) return;
        if (fileRegistered_) (void)io_uring_unregister_files(&ring_);
        fileRegistered_ = false;
        io_uring_queue_exit(&ring_);
        ringReady_ = false;
    }

    struct Slot {
        std::byte* data = nullptr;
        std::uint64_t offset = 0;
        std::uint32_t done = 0;  // bytes of the request already transferred
    };

    // A job under way: what it asks for and how far it got.
    struct JobState {
        const QueuedJob& job;
        bool reading = false;
        bool randomly = false;
        std::uint64_t blocks = 0;     // in the span
        std::uint64_t nextBlock = 0;  // of a sequential job
        std::uint64_t submittedBytes = 0;
        std::uint32_t inFlight = 0;
        bool stopping = false;               // no more requests go out
        std::optional<FileError> failure{};  // the first one, which fails the job
        QueuedFigures figures{};

        void fail(FileError error) {
            if (!failure) failure = std::move(error);
            stopping = true;
        }
    };

    Result<Unit, FileError> validate(const QueuedJob& job);
    Result<Unit, FileError> prepareBuffers(std::uint32_t blockSize, std::uint32_t depth, bool forWriting);
    void releaseBuffers();
    void queue(std::uint32_t index, bool reading, std::uint32_t blockSize);
    void startRequest(JobState& state, std::uint32_t index);
    int submitAndWait(std::uint32_t inFlight);
    unsigned takeCompletions(JobState& state, std::vector<std::uint32_t>& finished);

    int fd_;
    io_uring ring_{};
    bool ringReady_ = false;
    bool fileRegistered_ = false;
    // Set when the ring failed with requests possibly still in the kernel: their buffers are
    // then never freed, and the file runs no more jobs.
    bool abandoned_ = false;
    RandomBits random_;

    std::unique_ptr<std::byte, FreeMemory> memory_;
    std::vector<Slot> slots_;
    std::uint32_t blockSize_ = 0;
    bool buffersRegistered_ = false;
    bool filledWithRandom_ = false;
};

Result<Unit, FileError> IoUringQueuedFile::prepareBuffers(std::uint32_t blockSize, std::uint32_t depth,
                                                          bool forWriting) {
    if (blockSize != blockSize_ || depth > slots_.size()) {
        releaseBuffers();
        const std::size_t total = std::size_t{blockSize} * depth;
        void* memory = nullptr;
        // Ordinary pages, as fio has them. Huge pages would let the block layer merge the
        // contiguous blocks of a sequential job into requests several blocks long (4 MiB on
        // virtio), which measures something else than the block size asked for.
        if (const int rc = ::posix_memalign(&memory, kAlignment, total); rc != 0) return Failure{errorFor(rc)};
        std::memset(memory, 0, total);  // faults the pages in before the clock starts
        memory_.reset(static_cast<std::byte*>(memory));
        blockSize_ = blockSize;
        slots_.assign(depth, Slot{});
        std::vector<iovec> vectors(depth);
        for (std::uint32_t i = 0; i < depth; ++i) {
            slots_[i].data = memory_.get() + std::size_t{blockSize} * i;
            vectors[i] = iovec{slots_[i].data, blockSize};
        }
        // Registered buffers spare the kernel pinning the pages on every request, which counts
        // with small blocks only. Large ones go without: a registered buffer of ordinary pages
        // reaches the block layer as one segment per page, so a 1 MiB block (256 segments) is
        // always split for devices that take fewer (virtio: 254), where from unregistered memory
        // pages that happen to lie side by side merge and the block mostly goes whole.
        // Registration counts against the locked-memory limit too; when refused, the buffers are
        // used unregistered.
        buffersRegistered_ = blockSize <= kLargestRegisteredBlock &&
                             io_uring_register_buffers(&ring_, vectors.data(), depth) == 0;
    }
    if (forWriting && !filledWithRandom_) {
        std::byte* data = memory_.get();
        const std::size_t total = std::size_t{blockSize_} * slots_.size();
        for (std::size_t at = 0; at < total; at += sizeof(std::uint64_t)) {
            const std::uint64_t word = random_.next();
            std::memcpy(data + at, &word, sizeof word);
        }
        filledWithRandom_ = true;
    }
    return Unit{};
}

void IoUringQueuedFile::releaseBuffers() {
    if (buffersRegistered_ && ringReady_) io_uring_unregister_buffers(&ring_);
    buffersRegistered_ = false;
    if (abandoned_) (void)memory_.release();  // the kernel may still write into it
    memory_.reset();
    slots_.clear();
    blockSize_ = 0;
    filledWithRandom_ = false;
}

// Puts the rest of slot `index`'s request into the submission queue; it goes to the kernel with
// the next submitAndWait().
void IoUringQueuedFile::queue(std::uint32_t index, bool reading, std::uint32_t blockSize) {
    io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
    // The ring has room for the deepest queue, and no more requests than the queue is deep are
    // ever waiting in it; this is only a safeguard.
    while (sqe == nullptr) {
        io_uring_submit(&ring_);
        sqe = io_uring_get_sqe(&ring_);
    }
    Slot& slot = slots_[index];
    std::byte* at = slot.data + slot.done;
    const std::uint32_t length = blockSize - slot.done;
    const std::uint64_t offset = slot.offset + slot.done;
    const int file = fileRegistered_ ? 0 : fd_;
    if (buffersRegistered_) {
        if (reading) {
            io_uring_prep_read_fixed(sqe, file, at, length, offset, static_cast<int>(index));
        } else {
            io_uring_prep_write_fixed(sqe, file, at, length, offset, static_cast<int>(index));
        }
    } else if (reading) {
        io_uring_prep_read(sqe, file, at, length, offset);
    } else {
        io_uring_prep_write(sqe, file, at, length, offset);
    }
    if (fileRegistered_) io_uring_sqe_set_flags(sqe, IOSQE_FIXED_FILE);
    io_uring_sqe_set_data64(sqe, index);
}

// Submits what is queued and waits for at least one completion. Returns 0, or the negative error
// of a ring that cannot go on.
int IoUringQueuedFile::submitAndWait(std::uint32_t inFlight) {
    for (;;) {
        const int rc = io_uring_submit_and_wait(&ring_, 1);
        if (rc >= 0 || io_uring_cq_ready(&ring_) > 0) return 0;
        if (rc == -EINTR) continue;
        if (rc != -EAGAIN && rc != -EBUSY) return rc;
        // The kernel is short of memory for requests: once some in flight complete there is
        // room again; with none in flight, try again shortly.
        if (inFlight > io_uring_sq_ready(&ring_)) {
            io_uring_cqe* cqe = nullptr;
            const int waited = io_uring_wait_cqe(&ring_, &cqe);
            if (waited == 0 || waited == -EINTR) return 0;
            return waited;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Whether this file can run `job`: the job within the limits openIoUringQueuedFile() states, and
// the file open with a working ring.
Result<Unit, FileError> IoUringQueuedFile::validate(const QueuedJob& job) {
    if (fd_ < 0) return Failure{errorFor(EBADF)};
    if (abandoned_) return Failure{FileError{EIO, "the file's I/O ring failed earlier"}};
    const std::uint32_t blockSize = job.blockSize;
    const std::uint32_t depth = job.queueDepth;
    if (blockSize == 0 || blockSize % kAlignment != 0) {
        return Failure{FileError{EINVAL, "the block size is not a nonzero multiple of 4096"}};
    }
    if (depth == 0 || depth > kMaxQueueDepth) return Failure{FileError{EINVAL, "the queue depth is not 1 to 256"}};
    if (job.span == 0 || job.span % blockSize != 0) {
        return Failure{FileError{EINVAL, "the span is not a nonzero multiple of the block size"}};
    }
    if (job.byteLimit && *job.byteLimit % blockSize != 0) {
        return Failure{FileError{EINVAL, "the byte limit is not a multiple of the block size"}};
    }
    if (job.duration.count() < 0 || (job.duration.count() == 0 && !job.byteLimit)) {
        return Failure{FileError{EINVAL, "the job has neither a duration nor a byte limit"}};
    }
    if (job.direction == QueuedJob::Direction::read) {
        struct stat info {};
        if (::fstat(fd_, &info) != 0) return Failure{errorFor(errno)};
        if (job.span > static_cast<std::uint64_t>(info.st_size)) {
            return Failure{FileError{EINVAL, "the span reaches past the end of the file"}};
        }
    }
    return Unit{};
}

// Sends slot `index` out for the job's next block, unless the job is stopping or has sent its
// byte limit.
void IoUringQueuedFile::startRequest(JobState& state, std::uint32_t index) {
    const QueuedJob& job = state.job;
    if (state.stopping || (job.byteLimit && state.submittedBytes >= *job.byteLimit)) return;
    Slot& slot = slots_[index];
    std::uint64_t block = state.nextBlock;
    if (state.randomly) {
        block = random_.below(state.blocks);
    } else {
        state.nextBlock = state.nextBlock + 1 == state.blocks ? 0 : state.nextBlock + 1;
    }
    slot.offset = block * job.blockSize;
    slot.done = 0;
    state.submittedBytes += job.blockSize;
    ++state.inFlight;
    queue(index, state.reading, job.blockSize);
}

// Takes the completions the ring holds. A retried request or the rest of a short transfer goes out
// again, a failure fails the job, and a whole block counts and puts its slot into `finished`, to
// be sent out again. Returns the number of completions taken.
unsigned IoUringQueuedFile::takeCompletions(JobState& state, std::vector<std::uint32_t>& finished) {
    const std::uint32_t blockSize = state.job.blockSize;
    finished.clear();
    unsigned head = 0;
    unsigned seen = 0;
    io_uring_cqe* cqe = nullptr;
    io_uring_for_each_cqe(&ring_, head, cqe) {
        ++seen;
        const auto index = static_cast<std::uint32_t>(io_uring_cqe_get_data64(cqe));
        const int res = cqe->res;
        Slot& slot = slots_[index];
        if (res > 0) slot.done += static_cast<std::uint32_t>(res);
        if (res == -EAGAIN || res == -EINTR || (res > 0 && slot.done < blockSize)) {
            // Retried, or the rest of a short transfer; dropped once the job has failed.
            if (state.failure) {
                --state.inFlight;
            } else {
                queue(index, state.reading, blockSize);
            }
            continue;
        }
        --state.inFlight;
        if (res < 0) {
            state.fail(errorFor(-res));
        } else if (res == 0) {
            state.fail(state.reading ? FileError{ENODATA, "the file ended before the requested block"} : errorFor(EIO));
        } else {
            ++state.figures.operations;
            state.figures.bytes += blockSize;
            finished.push_back(index);
        }
    }
    io_uring_cq_advance(&ring_, seen);
    return seen;
}

Result<QueuedFigures, FileError> IoUringQueuedFile::run(const QueuedJob& job, const std::function<bool()>& shouldStop,
                                                        const std::function<void(std::uint64_t)>& progress) {
    if (auto valid = validate(job); !valid) return Failure{valid.error()};
    if (job.byteLimit == std::uint64_t{0}) return QueuedFigures{};
    const bool reading = job.direction == QueuedJob::Direction::read;
    if (auto prepared = prepareBuffers(job.blockSize, job.queueDepth, !reading); !prepared) {
        return Failure{prepared.error()};
    }

    using Clock = std::chrono::steady_clock;
    const bool timed = job.duration.count() > 0;
    JobState state{.job = job,
                   .reading = reading,
                   .randomly = job.pattern == QueuedJob::Pattern::random,
                   .blocks = job.span / job.blockSize};
    for (std::uint32_t index = 0; index < job.queueDepth; ++index) startRequest(state, index);
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + job.duration;
    Clock::time_point lastCompletion = start;
    Clock::time_point lastProgress = start;
    std::vector<std::uint32_t> finished;
    finished.reserve(job.queueDepth);

    while (state.inFlight > 0) {
        if (const int rc = submitAndWait(state.inFlight); rc < 0) {
            // The ring itself failed: what is in flight cannot be waited for.
            abandoned_ = true;
            state.fail(errorFor(-rc));
            break;
        }
        const unsigned seen = takeCompletions(state, finished);
        const Clock::time_point now = Clock::now();
        if (seen > 0) lastCompletion = now;
        if (!state.stopping && ((timed && now >= deadline) || (shouldStop && shouldStop()))) state.stopping = true;
        if (progress && now - lastProgress >= kProgressInterval) {
            progress(state.figures.bytes);
            lastProgress = now;
        }
        for (const std::uint32_t index : finished) startRequest(state, index);
    }
    if (abandoned_) {
        exitRing();
        releaseBuffers();
    }

    if (state.failure) return Failure{std::move(*state.failure)};
    state.figures.seconds = std::chrono::duration<double>(lastCompletion - start).count();
    return state.figures;
}

Result<std::unique_ptr<QueuedFile>, FileError> adopt(int fd) {
    if (fd < 0) return Failure{errorFor(errno)};
    auto file = std::make_unique<IoUringQueuedFile>(fd);
    if (auto started = file->startRing(); !started) return Failure{started.error()};
    return std::unique_ptr<QueuedFile>(std::move(file));
}

}  // namespace

Result<std::unique_ptr<QueuedFile>, FileError> openIoUringQueuedFile(const std::string& path) {
    return adopt(::open(path.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC));
}

Result<std::unique_ptr<QueuedFile>, FileError> openIoUringQueuedFileAt(int directory, const std::string& name) {
    return adopt(::openat(directory, name.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC | O_NOFOLLOW));
}

}  // namespace vantorix
