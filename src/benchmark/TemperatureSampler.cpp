#include "benchmark/TemperatureSampler.h"

#include <utility>

namespace vantorix {

TemperatureSampler::TemperatureSampler(std::shared_ptr<DriveTemperatureProbe> probe, std::string deviceName,
                                       std::chrono::steady_clock::duration interval) {
    if (!probe) return;
    thread_ = std::thread(
        [this, probe = std::move(probe), deviceName = std::move(deviceName), interval, token = stop_.token()] {
            do {
                const std::optional<double> celsius = probe->celsius(deviceName, token);
                if (token.isCancelled()) return;
                const std::lock_guard lock(mutex_);
                latest_ = celsius;
            } while (token.sleepFor(interval));
        });
}

TemperatureSampler::~TemperatureSampler() {
    stop_.cancel();
    if (thread_.joinable()) thread_.join();
}

std::optional<double> TemperatureSampler::latest() const {
    const std::lock_guard lock(mutex_);
    return latest_;
}

}  // namespace vantorix
