#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "platform/Registry.h"
#include "platform/VolumeInfoSource.h"

namespace vantorix::cli {

// Exit statuses of the command-line program.
enum ExitStatus : int { kSuccess = 0, kFailure = 1, kUsage = 2, kInterrupted = 130 };

// The platform services a command runs against; tests may hand in others.
struct Environment {
    std::shared_ptr<Registry> registry;
    std::shared_ptr<VolumeInfoSource> files;
    std::ostream* out;
    std::ostream* err;

    static Environment system();
};

struct InfoOptions {
    std::string path;
    bool json = false;
};

int runInfo(const InfoOptions& options, Environment& environment);

}  // namespace vantorix::cli
