// Cost of reading a volume's counters: a cached session snapshot against a bare pread of the same
// sysfs stat file, and a full matching pass over a fixture tree.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "monitor/DiskIOKitStatisticsProvider.h"
#include "platform/linux/SysfsRegistry.h"

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
    auto registry = std::make_shared<SysfsRegistry>();
    DiskVolumeDescriptor volume;
    volume.deviceName = benchDevice();
    auto session = StatisticsSession::create(registry, volume);
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

void BM_MatchServicesOnNvmeFixture(benchmark::State& state) {
    SysfsRegistry registry(std::string(VANTORIX_TEST_DATA_DIR) + "/sysfs/nvme-laptop");
    for (auto _ : state) {
        auto match = DiskIOKitStatisticsProvider::matchServices(registry, "nvme0n1p2");
        if (!match.ok()) {
            state.SkipWithError("no statistics in the fixture");
            return;
        }
        for (const auto& entry : match.value().services) registry.release(entry.service);
    }
}
BENCHMARK(BM_MatchServicesOnNvmeFixture);

}  // namespace
}  // namespace vantorix
