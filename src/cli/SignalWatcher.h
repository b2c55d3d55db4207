#pragma once

#include <csignal>
#include <functional>
#include <memory>
#include <thread>

namespace vantorix {
class LoopMainExecutor;
}

namespace vantorix::cli {

// Turns the signals a user's session sends to end a program (SIGINT from Ctrl-C, SIGTERM, SIGHUP
// when the terminal or the connection goes, SIGQUIT from Ctrl-\) into a call on a thread of its
// own, so that a command stops its work cleanly instead of dying. Construct it before any other
// thread starts: it blocks the signals in the calling thread, and threads started later inherit
// that mask.
class SignalWatcher {
public:
    // `onSignal` runs on the watching thread, for every signal.
    explicit SignalWatcher(std::function<void(int signal)> onSignal);
    // `stop` runs on `main`'s thread for the first signal. A further signal that comes a second or
    // more later, with the first still not taken by the main thread, ends the program at once with
    // status 128 + its number: the main thread is held up by a step that does not return, and
    // insisting is the way out. Other signals are left to the stop under way.
    SignalWatcher(std::shared_ptr<LoopMainExecutor> main, std::function<void(int signal)> stop);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

private:
    std::function<void(int)> onSignal_;
    sigset_t previousMask_{};
    std::thread thread_;
};

}  // namespace vantorix::cli
