// Cost of one scrape of the exporter with 8 volumes: the collector's snapshot for a scraper and
// its rendering, in each format, after every volume has seen 10 000 sampling intervals.
#include <benchmark/benchmark.h>

#include "exporter/MetricsCollector.h"
#include "platform/FakeRegistry.h"

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

class MovingCounters final : public PropertyDictionary {
public:
    std::vector<std::string> keys() const override { return {"Bytes (Read)", "Bytes (Write)", "Operations (Read)", "Operations (Write)"}; }
    std::optional<PropertyValue> find(std::string_view key) const override {
        value_ += 1'234'567;
        if (key == "Operations (Read)" || key == "Operations (Write)") return PropertyValue(value_ / 4096);
        return PropertyValue(value_);
    }

private:
    mutable std::uint64_t value_ = 0;
};

struct EightVolumes {
    EightVolumes() {
        exporter::MetricsCollector::Dependencies d;
        d.registry = registry;
        d.files = std::make_shared<FakeFolders>();
        d.samplingInterval = std::chrono::milliseconds(10);
        for (int i = 0; i < 8; ++i) {
            const std::string name = "nvme" + std::to_string(i) + "n1";
            const auto service = registry->addService(
                "block", makeDictionary({{"Statistics", PropertyValue(std::make_shared<MovingCounters>())}}));
            registry->addMatch(name, service);
            d.paths.push_back("/srv/data" + std::to_string(i) + "/" + name);
        }
        collector = std::make_unique<exporter::MetricsCollector>(d);
        collector->refreshVolumes();
        auto now = exporter::MetricsCollector::Clock::now();
        for (int i = 0; i < 10000; ++i) collector->sample(now += std::chrono::milliseconds(10));
    }
    std::shared_ptr<FakeRegistry> registry = std::make_shared<FakeRegistry>();
    std::unique_ptr<exporter::MetricsCollector> collector;
};

void BM_ScrapeEightVolumes(benchmark::State& state) {
    EightVolumes volumes;
    const auto format = state.range(0) == 0 ? exporter::ExpositionFormat::prometheusText : exporter::ExpositionFormat::openMetrics;
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
