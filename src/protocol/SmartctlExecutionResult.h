#pragma once

#include <cstdint>
#include <string>

namespace vantorix {

// What the privileged helper returns for one smartctl run.
struct SmartctlExecutionResult {
    std::string jsonData;                // smartctl's standard output, raw bytes (the JSON document)
    std::string commandDescription;      // the command line the helper ran, as readable text
    std::string standardError;           // smartctl's standard error, raw bytes
    std::int32_t terminationStatus = 0;  // smartctl's exit status (a bit mask)

    friend bool operator==(const SmartctlExecutionResult&, const SmartctlExecutionResult&) = default;
};

}  // namespace vantorix
