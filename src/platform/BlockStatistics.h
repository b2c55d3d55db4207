#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vantorix {

// The counters the kernel keeps for one block device, field by field as /sys/class/block/NAME/stat
// lists them. Every counter is cumulative since the device appeared and wraps modulo 2^64; times
// are milliseconds. Kernels before 4.18 give no discard fields and kernels before 5.5 no flush
// fields: those stay 0.
struct BlockStatistics {
    std::uint64_t readsCompleted = 0;
    std::uint64_t readsMerged = 0;
    std::uint64_t sectorsRead = 0;
    std::uint64_t readMilliseconds = 0;  // time spent reading, summed over requests
    std::uint64_t writesCompleted = 0;
    std::uint64_t writesMerged = 0;
    std::uint64_t sectorsWritten = 0;
    std::uint64_t writeMilliseconds = 0;
    std::uint64_t inFlight = 0;              // requests issued and not yet completed, now (not cumulative)
    std::uint64_t busyMilliseconds = 0;      // time with at least one request in flight
    std::uint64_t weightedMilliseconds = 0;  // time in flight summed over requests
    std::uint64_t discardsCompleted = 0;
    std::uint64_t discardsMerged = 0;
    std::uint64_t sectorsDiscarded = 0;
    std::uint64_t discardMilliseconds = 0;
    std::uint64_t flushesCompleted = 0;
    std::uint64_t flushMilliseconds = 0;

    // The kernel counts in sectors of 512 bytes whatever the device's own block size.
    static constexpr std::uint64_t kSectorBytes = 512;
    std::uint64_t bytesRead() const { return sectorsRead * kSectorBytes; }
    std::uint64_t bytesWritten() const { return sectorsWritten * kSectorBytes; }

    friend bool operator==(const BlockStatistics&, const BlockStatistics&) = default;
};

// The counters of a `stat` file's text: at least 11 whitespace-separated decimal fields, each fitting
// in 64 bits (fields a later kernel may add after the 17th are ignored). Nothing for anything else.
// Never allocates.
std::optional<BlockStatistics> parseBlockStatistics(std::string_view text);

}  // namespace vantorix
