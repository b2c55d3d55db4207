#pragma once

#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include "charts/SampleWindow.h"
#include "monitor/FixedRingBuffer.h"

namespace vantorix::testing {

// A history of samples with the given read and write byte counts, one second apart from
// 2025-03-01T08:15:30.125Z, each with a fresh id and the request counters `loads` has for it.
inline SampleWindow samplesOf(const std::vector<std::pair<std::uint64_t, std::uint64_t>>& bytes,
                              const std::vector<LoadCounters>& loads = {}) {
    using namespace std::chrono;
    const auto start = sys_days(year(2025) / March / 1) + hours(8) + minutes(15) + seconds(30) + milliseconds(125);
    FixedRingBuffer<DiskSample> buffer(std::max<std::size_t>(bytes.size(), 1));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        buffer.append(DiskSample{Uuid::make(), start + seconds(static_cast<long>(i)), bytes[i].first, bytes[i].second,
                                 1, 1, i < loads.size() ? loads[i] : LoadCounters{}});
    return SampleWindow(buffer.elements());
}

// `count` samples whose read count is `read(i)` and write count `write(i)`.
template <class Read, class Write>
SampleWindow samplesBy(std::size_t count, Read read, Write write) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> bytes;
    bytes.reserve(count);
    for (std::size_t i = 0; i < count; ++i) bytes.emplace_back(read(i), write(i));
    return samplesOf(bytes);
}

}  // namespace vantorix::testing
