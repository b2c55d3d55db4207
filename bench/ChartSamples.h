#pragma once

#include <chrono>
#include <cstdint>
#include <random>

#include "charts/SampleWindow.h"
#include "monitor/FixedRingBuffer.h"

namespace vantorix::bench {

// A full history of 60,000 samples that looks like real traffic: steady background reads with
// noise, and write bursts of a few hundred samples now and then. `seed` varies the counts.
inline SampleWindow chartSamples(std::uint64_t seed = 6, std::size_t count = 60'000) {
    std::mt19937_64 random(seed);
    std::uniform_int_distribution<std::uint64_t> noise(0, 400'000);
    FixedRingBuffer<DiskSample> buffer(count);
    auto time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1'740'816'930'125));
    std::uint64_t burstLeft = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (burstLeft == 0 && random() % 2000 == 0) burstLeft = 200 + random() % 800;
        const std::uint64_t write = burstLeft > 0 ? 2'000'000 + noise(random) * 4 : noise(random) / 8;
        burstLeft -= burstLeft > 0 ? 1 : 0;
        buffer.append(DiskSample{Uuid::make(), time, 300'000 + noise(random), write, 3, 5, {}});
        time += std::chrono::milliseconds(1);
    }
    return SampleWindow(buffer.elements());
}

}  // namespace vantorix::bench
