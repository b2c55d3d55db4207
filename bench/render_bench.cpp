// The chart export's 3840 × 2160 PNG for a full history of 60,000 samples: drawing, encoding,
// both together, and the whole export as the user gets it (CSV text, PNG, both files written).
// The export writes into $VANTORIX_CHART_BENCH_DIR when it is set (bench/run_chart_bench.sh hands
// the CSV to gnuplot from there) and into a temporary folder that it removes otherwise.
#include "ChartSamples.h"
#include "charts/ChartExportSupport.h"
#include "render/ChartImage.h"
#include "render/ChartImageRenderer.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace vantorix {
namespace {

constexpr int kWidth = ChartExportSupport::imageWidth;
constexpr int kHeight = ChartExportSupport::imageHeight;

void BM_ChartPngDraw(benchmark::State& state) {
    const auto samples = bench::chartSamples();
    for (auto _ : state) {
        auto image = render::chartImage(samples, 1, kWidth, kHeight);
        benchmark::DoNotOptimize(image);
    }
}
BENCHMARK(BM_ChartPngDraw)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_ChartPngEncode(benchmark::State& state) {
    const auto image = render::chartImage(bench::chartSamples(), 1, kWidth, kHeight);
    for (auto _ : state) {
        auto png = render::encodePNG(*image);
        benchmark::DoNotOptimize(png);
    }
}
BENCHMARK(BM_ChartPngEncode)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_ChartPngDrawAndEncode(benchmark::State& state) {
    const auto samples = bench::chartSamples();
    for (auto _ : state) {
        auto png = render::chartPNGData(samples, 1);
        benchmark::DoNotOptimize(png);
    }
}
BENCHMARK(BM_ChartPngDrawAndEncode)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_ChartExportWritesFiles(benchmark::State& state) {
    namespace fs = std::filesystem;
    const char* given = std::getenv("VANTORIX_CHART_BENCH_DIR");
    const fs::path dir = given != nullptr && *given != '\0'
                             ? fs::path(given)
                             : fs::temp_directory_path() / ("vantorix-chart-bench-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const auto samples = bench::chartSamples();
    const auto renderer = render::chartPNGRenderer();
    const std::string csv = (dir / "chart.csv").string();
    for (auto _ : state) {
        const auto outcome = ChartExportSupport::exportChart(samples, 1, csv, renderer);
        if (!outcome || !outcome->saved) state.SkipWithError(outcome ? outcome->text.c_str() : "no export");
    }
    if (given == nullptr || *given == '\0') fs::remove_all(dir);
}
BENCHMARK(BM_ChartExportWritesFiles)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace vantorix
