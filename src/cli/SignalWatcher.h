#pragma once

#include <csignal>
#include <functional>
#include <thread>

namespace vantorix::cli {

// Turns SIGINT and SIGTERM into a call on a thread of its own, so that a long command can stop
// its work cleanly instead of dying. Construct it before any other thread starts: it blocks the
// two signals in the calling thread, and threads started later inherit that mask.
class SignalWatcher {
public:
    explicit SignalWatcher(std::function<void(int signal)> onSignal);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

private:
    std::function<void(int)> onSignal_;
    sigset_t previousMask_{};
    std::thread thread_;
};

}  // namespace vantorix::cli
