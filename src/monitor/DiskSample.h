#pragma once

#include <chrono>
#include <cstdint>

#include "monitor/DeviceLoad.h"
#include "util/Uuid.h"

namespace vantorix {

// One monitor sample: what the volume's counters moved between two consecutive readings. Amounts
// per sampling interval, not rates; they wrap modulo 2^64 like the counters they come from.
struct DiskSample {
    Uuid id;
    std::chrono::system_clock::time_point timestamp;  // when the later reading was processed
    std::uint64_t readBytes = 0;
    std::uint64_t writeBytes = 0;
    std::uint64_t readOperations = 0;
    std::uint64_t writeOperations = 0;
    LoadCounters load;  // the request counters' differences over the same interval

    friend bool operator==(const DiskSample&, const DiskSample&) = default;
};

}  // namespace vantorix
