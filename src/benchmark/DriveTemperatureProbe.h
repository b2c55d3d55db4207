#pragma once

#include <optional>
#include <string_view>

#include "concurrency/Cancellation.h"

namespace vantorix {

// Reads a drive's current temperature for the sustained-write test, which samples it now and then
// on a thread of its own beside the writing. Implementations may block (the SMART helper answers
// within seconds) but must return soon after `cancellation` is cancelled; they may be called from
// any thread, one call at a time.
class DriveTemperatureProbe {
public:
    virtual ~DriveTemperatureProbe() = default;

    // The temperature in degrees Celsius of the drive behind the kernel device name; nothing when
    // it cannot be had (no helper, no answer, no temperature in the answer).
    virtual std::optional<double> celsius(std::string_view deviceName, const CancellationToken& cancellation) = 0;

protected:
    DriveTemperatureProbe() = default;
    DriveTemperatureProbe(const DriveTemperatureProbe&) = default;
    DriveTemperatureProbe& operator=(const DriveTemperatureProbe&) = default;
};

}  // namespace vantorix
