#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "monitor/DiskIOMonitor.h"

namespace CLI {
class App;
}
#include "composition/System.h"

namespace vantorix::cli {

// Exit statuses of the command-line program. With --json, standard output carries only JSON (see
// cli/JsonOutput.h); a failure is {"error":{"code":…,"message":…}} there besides its message on
// standard error.
enum ExitStatus : int { kSuccess = 0, kFailure = 1, kUsage = 2 };

// The status of a command stopped by a signal after cleaning up: 130 for SIGINT, 143 for SIGTERM,
// 129 for SIGHUP, 131 for SIGQUIT, 141 for SIGPIPE (its output went away).
constexpr int stoppedBy(int signal) { return 128 + signal; }

// What a command runs against: the machine's parts and the two output streams.
struct Environment {
    System system;
    std::ostream* out;
    std::ostream* err;

    // This machine, standard output and standard error.
    static Environment standard();

    // True once a write to either stream failed: the reader went away, and a long command stops
    // its work as for SIGPIPE.
    bool outputLost() const { return out->fail() || err->fail(); }
};

// One subcommand: its options are declared by its add function, next to its code; `run` runs it
// once the command line has been parsed, when the subcommand was chosen.
struct Command {
    CLI::App* app = nullptr;
    std::function<int(Environment&)> run;
};

Command addInfoCommand(CLI::App& parent);
Command addMonitorCommand(CLI::App& parent);
Command addBenchCommand(CLI::App& parent);
Command addSmartCommand(CLI::App& parent);
Command addHelperCommand(CLI::App& parent);
Command addCheckUpdateCommand(CLI::App& parent);
Command addFeedbackCommand(CLI::App& parent);
Command addServeCommand(CLI::App& parent);

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
    bool latency = false;                // the human lines add await, utilisation, queue depth and in flight
    std::optional<std::string> csvPath;  // when set, the chart export (CSV, PNG and latency CSV beside it) at the end
};

// Monitors the volume behind a folder: a line of figures a second until the duration ends or the
// user presses Ctrl-C, then a summary. Exit status 0, 1 on an error, stoppedBy(signal) when stopped.
int runMonitor(const MonitorOptions& options, Environment& environment);

struct BenchOptions {
    std::string path;
    // "full" (the free space, truncated to whole gigabytes), or a gigabyte count: "1", "10", "100",
    // "1000", "10000" (any count for the sustained profile). 1 GB by default: a command typed
    // without a size should not fill the disk. The sustained profile without a size writes 80% of
    // the free space, at most 256 GiB.
    std::string size = "1";
    bool sizeGiven = false;
    bool json = false;
    bool direct = false;  // bypass the page cache in the standard test
    // or "deep": the queue-depth profiles on io_uring; or "sustained": the sustained write
    std::string profile = "standard";
    double seconds = 5;  // each read and each write of the deep profiles
    // Shorter runs for tests and comparisons; hidden from --help.
    std::optional<std::uint64_t> payloadBytes;
    std::optional<double> randomSeconds;
    bool history = false;                 // list the drive's recorded runs instead of running one
    std::optional<std::string> database;  // the history's file, when not the user's
};

// Runs the four-phase performance test on the volume behind a folder, with a progress line, then
// prints the result and the report's path. Exit status 0, 1 on an error, stoppedBy(signal) when
// stopped (the test files are removed first).
int runBench(const BenchOptions& options, Environment& environment);

struct SmartOptions {
    std::optional<std::string> path;      // a folder on the volume whose drive is asked, through the helper
    std::optional<std::string> jsonFile;  // or a saved `smartctl --json` output to replay
    bool json = false;
    bool watch = false;  // with a path: keep refreshing and print every published change until Ctrl-C
    // The drive's health history (--database, else the user's file): its readings since a time,
    // as text, JSON or CSV; or the growth figures' baselines set to their current values.
    bool history = false;
    std::optional<std::string> since;  // a duration: "7d"
    bool csv = false;
    bool acknowledge = false;
    std::optional<std::string> database;
};

// Prints the overall status, the capability and the rows of a drive's SMART data: live through the
// privileged helper for the volume behind a folder, or replayed from a saved `smartctl --json`
// output. Exit status 0; 1 when there is no usable SMART information, the helper is not available
// (the message says how to enable it) or the file cannot be read; stoppedBy(signal) when stopped.
int runSmart(const SmartOptions& options, Environment& environment);

struct HelperOptions {
    enum class Action { status, enable, disable };
    Action action = Action::status;
    bool json = false;
};

// Shows the SMART helper's registration as the helper manager sees it, or registers or removes it
// through the service manager.
int runHelper(const HelperOptions& options, Environment& environment);

struct CheckUpdateOptions {
    bool download = false;
    bool json = false;
};

// Asks the vendor's web service for the product's newest version, as the About window does. Prints
// "Already up to date" (exit status 0), or the new version and its URL (0) and with --download the
// path it was saved to in the Downloads folder (0); without a configured service, that the system's
// package manager updates this build (0). A failure's message goes to standard error (exit status 1).
int runCheckUpdate(const CheckUpdateOptions& options, Environment& environment);

struct FeedbackOptions {
    std::string type = "suggestion";  // the wire value: suggestion, bug, feature, other
    std::string title;
    std::string content;
    std::string email;
    bool json = false;
};

// Sends feedback as the Feedback window does: the same limits, checks and messages. Exit status 0
// when the service accepted it, 1 with the message on standard error otherwise.
int runFeedback(const FeedbackOptions& options, Environment& environment);

struct ServeOptions {
    std::string listen = "127.0.0.1:9842";
    DiskIOMonitor::SamplingPrecision precision = DiskIOMonitor::SamplingPrecision::ms1000;
    std::vector<std::string> volumes;  // folders; every mounted block-device file system when empty
    std::string healthDatabase;        // the drive-health history; HealthHistory::servicePath() when empty
    std::chrono::nanoseconds smartInterval = std::chrono::minutes(1);  // between two SMART refreshes of a drive
};

// "ADDRESS:PORT", "[IPv6]:PORT" or ":PORT" (loopback) as an address and a port; nothing when malformed.
std::optional<std::pair<std::string, std::uint16_t>> parseListenAddress(std::string_view text);

// Serves /metrics in the Prometheus text format (OpenMetrics when asked) until a signal stops it.
// Exit status stoppedBy(signal) then, 1 when it cannot listen or none of the named folders can be
// watched, 2 for a malformed listen address.
int runServe(const ServeOptions& options, Environment& environment);

}  // namespace vantorix::cli
