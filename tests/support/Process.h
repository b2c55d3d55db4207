#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantorix::testing {

struct ProcessResult {
    int exitStatus = -1;  // the exit code, or 128 + signal number
    std::string out, err;
};

// Variables that override (or, with nullopt, remove) those of this process's environment.
using Environment = std::map<std::string, std::optional<std::string>>;

// Runs a program (no shell) with standard input from /dev/null and collects its output.
ProcessResult runProcess(const std::vector<std::string>& argv, const Environment& environment = {});

// Runs a command through /bin/sh -c; for test set-up steps.
ProcessResult runShell(const std::string& command);

// A program running in the background: its standard output comes through a pipe a line at a time,
// its standard error goes to a file read when it has ended, or with `errorsToOutput` into the same
// pipe. Killed and reaped with the object.
class RunningProcess {
public:
    static std::unique_ptr<RunningProcess> start(const std::vector<std::string>& argv,
                                                 const Environment& environment = {}, bool errorsToOutput = false);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    pid_t pid() const { return pid_; }
    // The next line of standard output (without its newline), or nothing when none comes in time
    // or the output has ended.
    std::optional<std::string> readLine(std::chrono::milliseconds limit);
    void signal(int number) const;
    // Closes the reading end of the pipe, as a reader that goes away does: the program's next
    // write there fails (EPIPE, or SIGPIPE).
    void closeOutput();
    // The exit status (128 + signal when killed), waiting at most the limit.
    std::optional<int> waitForExit(std::chrono::milliseconds limit);
    // Standard error so far.
    std::string standardError() const;

private:
    RunningProcess() = default;
    pid_t pid_ = -1;
    int out_ = -1;
    std::string errPath_;
    std::string pending_;
    std::optional<int> status_;
};

// The exit status of a child process (128 + signal when killed), waiting at most the limit; nothing
// when it is still running.
std::optional<int> waitForExit(pid_t pid, std::chrono::milliseconds limit);

// Whether the condition holds within the limit, checked every 10 ms.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = std::chrono::seconds(10));

// A loopback TCP port no one listens on now (the kernel's choice for a socket bound to port 0).
int freeLoopbackPort();

}  // namespace vantorix::testing
