#pragma once

#include <memory>

#include "benchmark/DriveTemperatureProbe.h"
#include "smart/SMARTInfoProvider.h"

namespace vantorix {

// The drive's temperature as the SMART helper reports it: one fetch through the provider (the
// volume's device, its whole disk, …), read as the drive-health history reads smartctl's answer.
class SmartTemperatureProbe final : public DriveTemperatureProbe {
public:
    explicit SmartTemperatureProbe(std::shared_ptr<SMARTInfoProvider> provider) : provider_(std::move(provider)) {}

    std::optional<double> celsius(std::string_view deviceName, const CancellationToken& cancellation) override;

private:
    std::shared_ptr<SMARTInfoProvider> provider_;
};

}  // namespace vantorix
