#pragma once

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "protocol/SmartctlExecutionResult.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix::helper {

struct RunLimits {
    std::chrono::milliseconds timeout{4000};
    // What is kept of smartctl's output. Base64 makes 5 MiB about 6.7 MiB: the reply stays a frame.
    std::size_t maximumOutputBytes = std::size_t{4} * 1024 * 1024;
    std::size_t maximumErrorBytes = std::size_t{1} * 1024 * 1024;
};

// One smartctl process: started without a shell in its own process group, with /dev/null as
// standard input, its standard output and error captured through pipes, a fixed environment and
// no other descriptor. It is answered once (finished) and reaped once (reaped, after finished).
//
// A child that outlives its time limit or writes more than the limits keep is sent SIGKILL (its
// whole process group) and the run is answered at once with timedOut or outputTooLarge: a child in
// uninterruptible sleep cannot be reaped even then, so nobody waits for it. The child is reaped
// whenever it ends, watched through a pidfd.
class SmartctlRun : public std::enable_shared_from_this<SmartctlRun> {
public:
    using Outcome = std::variant<SmartctlExecutionResult, protocol::HelperError>;
    struct Handlers {
        std::function<void(const Outcome&)> finished;
        std::function<void()> reaped;
    };

    // argv[0] is the program. The handlers are never called from inside start().
    static std::shared_ptr<SmartctlRun> start(asio::io_context& io, std::vector<std::string> argv,
                                              const RunLimits& limits, Handlers handlers);
    ~SmartctlRun();
    SmartctlRun(const SmartctlRun&) = delete;
    SmartctlRun& operator=(const SmartctlRun&) = delete;

    // Kills the child without answering: the handlers are dropped (the daemon is stopping).
    void abandon();

    const std::string& commandDescription() const { return commandDescription_; }
    pid_t pid() const { return pid_; }
    // The child has been reaped, or none was started.
    bool childEnded() const { return exited_; }

private:
    struct Capture {
        explicit Capture(asio::io_context& io) : descriptor(io) {}
        asio::posix::stream_descriptor descriptor;
        std::string bytes;
        std::size_t limit = 0;
        bool ended = false;
    };

    SmartctlRun(asio::io_context& io, std::vector<std::string> argv, const RunLimits& limits, Handlers handlers);
    void launch();
    void read(Capture& capture);
    void watchChild();
    void childEnded(int status);
    void completeIfDone();
    void killChild(protocol::HelperError error);
    void answer(const Outcome& outcome);

    asio::io_context& io_;
    std::vector<std::string> argv_;
    RunLimits limits_;
    Handlers handlers_;
    std::string commandDescription_;
    Capture output_;
    Capture errors_;
    asio::posix::stream_descriptor process_;  // the pidfd
    asio::steady_timer deadline_;
    std::chrono::steady_clock::time_point startedAt_;
    pid_t pid_ = -1;
    int terminationStatus_ = 0;
    bool exited_ = false;  // reaped
    bool answered_ = false;
};

}  // namespace vantorix::helper
