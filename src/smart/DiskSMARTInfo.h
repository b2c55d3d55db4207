#pragma once

#include <optional>
#include <string>
#include <vector>

#include "util/Uuid.h"

namespace vantorix {

// A drive's SMART health data as the program shows it.
struct DiskSMARTInfo {
    struct Detail {
        Uuid id = Uuid::make();  // fresh for every row
        std::string keyPath;
        std::string displayName;
        std::string value;

        friend bool operator==(const Detail&, const Detail&) = default;
    };

    std::optional<std::string> overallStatus;
    std::optional<bool> isCapable;
    std::vector<Detail> details;
    std::optional<std::string> sourceCommand;

    friend bool operator==(const DiskSMARTInfo&, const DiskSMARTInfo&) = default;
};

}  // namespace vantorix
