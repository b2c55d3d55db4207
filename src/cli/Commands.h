#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "monitor/DiskIOMonitor.h"
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

struct MonitorOptions {
    std::string path;
    DiskIOMonitor::SamplingPrecision precision = DiskIOMonitor::SamplingPrecision::ms1000;
    std::optional<double> duration;  // seconds; until Ctrl-C when absent
    bool json = false;
};

// Monitors the volume behind a folder: a line of figures a second until the duration ends or the
// user presses Ctrl-C, then a summary. Exit status 0, 1 on an error, 130 when interrupted.
int runMonitor(const MonitorOptions& options, Environment& environment);

}  // namespace vantorix::cli
