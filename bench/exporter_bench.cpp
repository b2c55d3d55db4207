// Cost of one scrape of the exporter with 8 volumes: the collector's snapshot for a scraper and
// its rendering, in each format, after every volume has seen 10 000 sampling intervals.
#include <benchmark/benchmark.h>

#include "exporter/MetricsCollector.h"
#include "support/ScriptedBlockDevices.h"

namespace vantorix {
namespace {

// Every folder is on the device named by its last component.
class FakeFolders final : public VolumeInfoSource {
public:
    std::optional<std::string> resolveSymlinks(const std::string& path) override { return path; }
    Result<FileSystemStatistics, int> fileSystemStatistics(const std::string& path) override {
        return FileSystemStatistics{"/dev/" + path.substr(path.rfind('/') + 1), "ext4", path, 4096, 1000, 500};
    }
    Result<VolumeResourceValues, int> resourceValues(const std::string&) override { return Failure{5}; }
};

// Counters that move on every reading, as a busy device's do.
BlockStatistics movingCounters(std::uint64_t& value) {
    value += 2411;
    BlockStatistics statistics;
    statistics.sectorsRead = statistics.sectorsWritten = value;
    statistics.readsCompleted = statistics.writesCompleted = value / 8;
    return statistics;
}

struct EightVolumes {
    EightVolumes() {
        exporter::MetricsCollector::Dependencies d;
        d.devices = devices;
        d.files = std::make_shared<FakeFolders>();
        d.samplingInterval = std::chrono::milliseconds(10);
        for (int i = 0; i < 8; ++i) {
            const std::string name = "nvme" + std::to_string(i) + "n1";
            devices->add(name, [value = std::uint64_t{0}]() mutable { return movingCounters(value); });
            d.paths.push_back("/srv/data" + std::to_string(i) + "/" + name);
        }
        collector = std::make_unique<exporter::MetricsCollector>(d);
        collector->refreshVolumes();
        auto now = exporter::MetricsCollector::Clock::now();
        for (int i = 0; i < 10000; ++i) collector->sample(now += std::chrono::milliseconds(10));
    }
    std::shared_ptr<testing::ScriptedBlockDevices> devices = std::make_shared<testing::ScriptedBlockDevices>();
    std::unique_ptr<exporter::MetricsCollector> collector;
};

void BM_ScrapeEightVolumes(benchmark::State& state) {
    EightVolumes volumes;
    const auto format = state.range(0) == 0 ? exporter::ExpositionFormat::prometheusText
                                            : exporter::ExpositionFormat::openMetrics;
    std::size_t bytes = 0;
    for (auto _ : state) {
        const auto body = exporter::render(volumes.collector->scrape("prometheus"), format);
        bytes = body.size();
        benchmark::DoNotOptimize(body.data());
    }
    state.counters["body_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ScrapeEightVolumes)->Arg(0)->Arg(1)->ArgName("openmetrics")->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace vantorix
