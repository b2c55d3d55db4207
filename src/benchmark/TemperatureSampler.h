#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "benchmark/DriveTemperatureProbe.h"
#include "concurrency/Cancellation.h"

namespace vantorix {

// Samples a drive's temperature on a thread of its own, at once and then every `interval`, while
// it exists, so that whoever writes to the drive never waits for the probe. Without a probe it
// does nothing. Destruction stops the sampling and waits for the probe's call under way, which
// returns soon after its cancellation.
class TemperatureSampler {
public:
    static constexpr std::chrono::seconds kDefaultInterval{10};

    TemperatureSampler(std::shared_ptr<DriveTemperatureProbe> probe, std::string deviceName,
                       std::chrono::steady_clock::duration interval = kDefaultInterval);
    ~TemperatureSampler();
    TemperatureSampler(const TemperatureSampler&) = delete;
    TemperatureSampler& operator=(const TemperatureSampler&) = delete;

    // The last temperature the probe gave, from any thread; nothing before the first answer or
    // after an answer without one.
    std::optional<double> latest() const;

private:
    mutable std::mutex mutex_;
    std::optional<double> latest_;
    CancellationSource stop_;
    std::thread thread_;
};

}  // namespace vantorix
