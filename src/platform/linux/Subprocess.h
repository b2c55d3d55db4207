#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "util/Result.h"

namespace vantorix {

struct CommandResult {
    int exitStatus = -1;  // the exit code, or 128 + the signal that ended it
    std::string out;      // standard output, at most kCommandOutputLimit bytes
    std::string err;      // standard error, likewise
};

inline constexpr std::size_t kCommandOutputLimit = std::size_t{64} * 1024;

// Runs a program (looked up in PATH when the name has no "/") without a shell, with standard input
// from /dev/null, default signal dispositions and an empty signal mask, and collects its output.
// A program still running after `timeout` is killed. Fails when the program cannot be started.
Result<CommandResult, std::string> runCommand(const std::vector<std::string>& argv,
                                              std::optional<std::chrono::milliseconds> timeout);

// A long-running child that ends with the thread that started it: it gets SIGTERM when that
// thread (or the whole process) ends, even when the process is killed. It runs in a process group
// of its own, so a Ctrl-C at the terminal reaches only the parent, which stops it in its own time.
class ChildProcess {
public:
    static Result<ChildProcess, std::string> start(const std::vector<std::string>& argv);
    ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Stops the child (see stop()).
    ~ChildProcess();

    pid_t pid() const { return pid_; }
    // True while the child has not ended. Reaps it when it has.
    bool running();
    // SIGTERM, then SIGKILL after `grace`; waits until it is reaped.
    void stop(std::chrono::milliseconds grace = std::chrono::milliseconds(2000));

private:
    explicit ChildProcess(pid_t pid) : pid_(pid) {}
    pid_t pid_ = -1;
};

}  // namespace vantorix
