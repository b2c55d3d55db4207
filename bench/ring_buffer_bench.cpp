// The main thread's cost of keeping the sample history: appending one delivered batch (17 samples,
// about one display frame at 1 ms sampling) to a full 60000-sample buffer and republishing the
// history as a view, against copying the history into a vector as a plain list would need. Also
// the readers' side: walking the whole history through a view (element by element and span by
// span) and through a vector.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <span>
#include <vector>

#include "monitor/DiskSample.h"
#include "monitor/FixedRingBuffer.h"

namespace vantorix {
namespace {

constexpr std::size_t kHistory = 60000;
constexpr std::uint64_t kBatch = 17;

DiskSample sampleNumber(std::uint64_t n) {
    return DiskSample{Uuid::make(), std::chrono::system_clock::now(), n * 4096, n * 512, n, n, {}};
}

FixedRingBuffer<DiskSample> fullHistory() {
    FixedRingBuffer<DiskSample> buffer(kHistory);
    for (std::uint64_t n = 0; n < kHistory; ++n) buffer.append(sampleNumber(n));
    return buffer;
}

void BM_RingAppendBatchAndTakeElements(benchmark::State& state) {
    FixedRingBuffer<DiskSample> buffer = fullHistory();
    std::vector<DiskSample> batch;
    for (std::uint64_t n = 0; n < kBatch; ++n) batch.push_back(sampleNumber(n));
    FixedRingBuffer<DiskSample>::Elements published;
    for (auto _ : state) {
        for (const auto& sample : batch) buffer.append(sample);
        published = buffer.elements();
        benchmark::DoNotOptimize(published);
    }
}
BENCHMARK(BM_RingAppendBatchAndTakeElements)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_RingHistoryCopiedToVector(benchmark::State& state) {
    const FixedRingBuffer<DiskSample> buffer = fullHistory();
    const auto view = buffer.elements();
    for (auto _ : state) {
        std::vector<DiskSample> copy = view.toVector();
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_RingHistoryCopiedToVector)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_RingPlainVectorCopy(benchmark::State& state) {
    const std::vector<DiskSample> history = fullHistory().elements().toVector();
    for (auto _ : state) {
        std::vector<DiskSample> copy = history;
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_RingPlainVectorCopy)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_RingWalkView(benchmark::State& state) {
    const FixedRingBuffer<DiskSample> buffer = fullHistory();
    const auto view = buffer.elements();
    for (auto _ : state) {
        std::uint64_t total = 0;
        for (const auto& sample : view) total += sample.writeBytes;
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_RingWalkView)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_RingWalkViewBySpans(benchmark::State& state) {
    const FixedRingBuffer<DiskSample> buffer = fullHistory();
    const auto view = buffer.elements();
    for (auto _ : state) {
        std::uint64_t total = 0;
        view.forEachSpan([&total](std::span<const DiskSample> run) {
            for (const auto& sample : run) total += sample.writeBytes;
        });
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_RingWalkViewBySpans)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_RingWalkVector(benchmark::State& state) {
    const std::vector<DiskSample> history = fullHistory().elements().toVector();
    for (auto _ : state) {
        std::uint64_t total = 0;
        for (const auto& sample : history) total += sample.writeBytes;
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_RingWalkVector)->Repetitions(10)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace vantorix
