// The graph's downsampling and the chart export's CSV, on a full history of 60,000 samples:
// - the reduction itself, 60,000 samples to the 3,840 points of a 1,920-point-wide graph;
// - a whole cache request from the main thread until its points are installed there, once with a
//   full recompute and once with the range grown at its end (only the last bin and the new ones
//   are computed);
// - the CSV text of the export at 1 ms (whole numbers) and 100 ms (fractional elapsed seconds).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "ChartSamples.h"
#include "charts/ChartExportSupport.h"
#include "charts/DiskIOGraphRendererCache.h"
#include "support/ManualMainExecutor.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kSamples = 60'000;
constexpr std::int64_t kPoints = 3'840;

void BM_DownsampleBins60000To3840(benchmark::State& state) {
    const auto samples = bench::chartSamples();
    const std::int64_t chunk = (kSamples + kPoints - 1) / kPoints;
    for (auto _ : state) {
        auto bins = DiskIOGraphRendererCache::computeBins(samples, 0, kSamples, chunk, 1000.0);
        benchmark::DoNotOptimize(bins.data());
    }
}
BENCHMARK(BM_DownsampleBins60000To3840)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

// update() until the points are installed on the (manual) main thread.
void request(ManualMainExecutor& main, DiskIOGraphRendererCache& cache, const SampleWindow& samples,
             std::int64_t upper) {
    cache.update(samples, {0, upper}, kPoints, 1);
    main.runUntil([&cache] { return !cache.hasPendingWork(); }, 10s);
    main.drain();
}

void BM_GraphCacheFullRecompute(benchmark::State& state) {
    // Two lists with different signatures, taken in turn, so that every request recomputes all.
    const SampleWindow lists[] = {bench::chartSamples(1), bench::chartSamples(2)};
    auto main = std::make_shared<ManualMainExecutor>();
    auto cache = DiskIOGraphRendererCache::create(main);
    std::size_t turn = 0;
    for (auto _ : state) request(*main, *cache, lists[turn++ % 2], kSamples);
}
BENCHMARK(BM_GraphCacheFullRecompute)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_GraphCacheGrowthAtTheEnd(benchmark::State& state) {
    // 0..<59,000 grows to 0..<60,000 with unchanged data: with 3,840 points both have chunks of 16.
    const auto samples = bench::chartSamples();
    auto main = std::make_shared<ManualMainExecutor>();
    auto cache = DiskIOGraphRendererCache::create(main);
    for (auto _ : state) {
        state.PauseTiming();
        request(*main, *cache, samples, 59'000);
        state.ResumeTiming();
        request(*main, *cache, samples, kSamples);
    }
}
BENCHMARK(BM_GraphCacheGrowthAtTheEnd)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_ChartCsv60000(benchmark::State& state) {
    const auto samples = bench::chartSamples();
    for (auto _ : state) {
        auto text = ChartExportSupport::csvText(samples, state.range(0));
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_ChartCsv60000)
    ->Arg(1)
    ->Arg(100)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
}  // namespace vantorix
