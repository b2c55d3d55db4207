#pragma once

#include <optional>
#include <string>
#include <vector>

#include "util/Uuid.h"

namespace vantorix {

// A drive's SMART health data as the program shows it. Equality compares every field, including
// each row's id: two interpretations of the same output that have rows are never equal.
struct DiskSMARTInfo {
    // One display row.
    struct Detail {
        Uuid id = Uuid::make();   // fresh for every row; list identity only
        std::string keyPath;      // concrete JSON path with indices: nvme_power_states[2].max_power.value
        std::string displayName;  // in the language in force when the row was built
        std::string value;        // formatted, never empty

        friend bool operator==(const Detail&, const Detail&) = default;
    };

    std::optional<std::string> overallStatus;  // one-line verdict such as "PASSED"
    std::optional<bool> isCapable;             // whether the device supports SMART; absent when unknown
    std::vector<Detail> details;               // flattened, filtered and ordered rows
    std::optional<std::string> sourceCommand;  // the command line the helper ran

    friend bool operator==(const DiskSMARTInfo&, const DiskSMARTInfo&) = default;
};

}  // namespace vantorix
