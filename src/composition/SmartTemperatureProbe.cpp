#include "composition/SmartTemperatureProbe.h"

#include "health/DriveHealth.h"

namespace vantorix {

std::optional<double> SmartTemperatureProbe::celsius(std::string_view deviceName,
                                                     const CancellationToken& cancellation) {
    const auto outcome = provider_->fetch(deviceName, cancellation);
    if (outcome.smartctlJson.empty()) return std::nullopt;
    const auto reading = health::driveReadingFromJson(outcome.smartctlJson, 0);
    if (!reading) return std::nullopt;
    return reading->snapshot[health::Figure::temperature];
}

}  // namespace vantorix
