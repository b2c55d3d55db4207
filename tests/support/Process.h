#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vantorix::testing {

struct ProcessResult {
    int exitStatus = -1;  // the exit code, or 128 + signal number
    std::string out;
    std::string err;
};

// Runs a program (no shell) and collects its output. `environment` entries override (or, with
// nullopt, remove) variables of this process's environment.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::optional<std::string>>& environment = {});

// Runs a command through /bin/sh -c; for test set-up steps.
ProcessResult runShell(const std::string& command);

}  // namespace vantorix::testing
