#pragma once

#include <cstdint>
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
    std::optional<std::string> csvPath;  // when set, the chart export (CSV and PNG beside it) at the end
};

// Monitors the volume behind a folder: a line of figures a second until the duration ends or the
// user presses Ctrl-C, then a summary. Exit status 0, 1 on an error, 130 when interrupted.
int runMonitor(const MonitorOptions& options, Environment& environment);

struct BenchOptions {
    std::string path;
    // "full" (the free space, truncated to whole gigabytes), or a gigabyte count: "1", "10", "100",
    // "1000", "10000". 1 GB by default: a command typed without a size should not fill the disk.
    std::string size = "1";
    bool json = false;
    // Shorter runs for tests and comparisons; hidden from --help.
    std::optional<std::uint64_t> payloadBytes;
    std::optional<double> randomSeconds;
};

// Runs the four-phase performance test on the volume behind a folder, with a progress line, then
// prints the result and the report's path. Exit status 0, 1 on an error, 130 when interrupted
// (the test files are removed first).
int runBench(const BenchOptions& options, Environment& environment);

struct SmartOptions {
    std::string jsonFile;
    bool json = false;
};

// Replays a saved `smartctl --json` output through the SMART interpretation and prints the overall
// status, the capability and the rows. Exit status 0, 1 when the file cannot be read or holds no
// usable SMART information.
int runSmart(const SmartOptions& options, Environment& environment);

}  // namespace vantorix::cli
