// Cost of reading a volume's counters: a cached session snapshot against a bare pread of the same
// sysfs stat file, and reading a device's attachment from a fixture tree.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "monitor/StatisticsSession.h"
#include "platform/linux/SysfsBlockDevices.h"

namespace vantorix {
namespace {

// The block device the benchmarks read: VANTORIX_BENCH_DEVICE, else the first disk with a stat file.
std::string benchDevice() {
    if (const char* name = std::getenv("VANTORIX_BENCH_DEVICE")) return name;
    for (const char* candidate : {"vda", "nvme0n1", "sda", "xvda", "loop0"}) {
        if (std::filesystem::exists(std::string("/sys/class/block/") + candidate + "/stat")) return candidate;
    }
    return "loop0";
}

void BM_BarePreadOfStat(benchmark::State& state) {
    const std::string path = "/sys/class/block/" + benchDevice() + "/stat";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        state.SkipWithError(("cannot open " + path).c_str());
        return;
    }
    char buffer[512];
    for (auto _ : state) {
        const auto n = ::pread(fd, buffer, sizeof buffer, 0);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(buffer);
    }
    ::close(fd);
}
BENCHMARK(BM_BarePreadOfStat);

void BM_CachedSessionSnapshot(benchmark::State& state) {
    auto session = StatisticsSession::create(std::make_shared<SysfsBlockDevices>(), benchDevice());
    if (!session.ok()) {
        state.SkipWithError(session.error().description().c_str());
        return;
    }
    for (auto _ : state) {
        auto snapshot = session.value()->snapshot();
        benchmark::DoNotOptimize(snapshot);
    }
}
BENCHMARK(BM_CachedSessionSnapshot);

// Reading a device's attachment: the walk up the device tree, done once per selected volume.
void BM_DeviceOnNvmeFixture(benchmark::State& state) {
    SysfsBlockDevices devices(std::string(VANTORIX_TEST_DATA_DIR) + "/sysfs/nvme-laptop");
    for (auto _ : state) {
        auto device = devices.device("nvme0n1p2");
        if (!device.ok()) {
            state.SkipWithError("no such device in the fixture");
            return;
        }
        benchmark::DoNotOptimize(device);
    }
}
BENCHMARK(BM_DeviceOnNvmeFixture);

}  // namespace
}  // namespace vantorix
