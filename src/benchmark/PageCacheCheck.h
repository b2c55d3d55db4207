#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "benchmark/BenchmarkPhase.h"

namespace vantorix {

// What one phase of the standard test moved, next to what the volume's block device counted in
// the same span: a buffered phase may be served from, or stay in, the page cache.
struct PhaseTraffic {
    BenchmarkPhase phase = BenchmarkPhase::randomWrite;
    std::uint64_t bytesMoved = 0;
    std::optional<std::uint64_t> deviceBytes;  // absent when the device's counters could not be read

    // Less than half of what the phase moved reached the device.
    bool servedFromPageCache() const;

    friend bool operator==(const PhaseTraffic&, const PhaseTraffic&) = default;
};

inline constexpr double kPageCacheShareThreshold = 0.5;

bool isWritePhase(BenchmarkPhase phase);

// A byte count as the check shows it, from bytes to terabytes: "0 B", "4 KB", "67.1 MB".
std::string phaseBytesText(std::uint64_t bytes);
// "moved 40 MB, device read 0 bytes", or that the counters were unavailable, in the current language.
std::string phaseTrafficText(const PhaseTraffic& traffic);
// The warning for a phase served from the page cache, in the current language.
std::string pageCacheWarning(BenchmarkPhase phase);
// The warnings of every phase served from the page cache, in phase order.
std::vector<std::string> pageCacheWarnings(const std::vector<PhaseTraffic>& phases);

}  // namespace vantorix
