#pragma once

#include "concurrency/MainExecutor.h"
#include "concurrency/PendingWork.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>

namespace vantorix {

// The main thread of the command-line tool: the thread that constructs the executor runs the
// posted work in its loop, run(), until stop() is called. A failure on the main thread ends the
// loop instead of leaving it waiting for a stop() that the failed work would have asked for: a
// work item that throws, or fail(), makes run() (or runFor()) throw that exception; the items
// after it wait for the next run().
class LoopMainExecutor final : public MainExecutor {
public:
    using Clock = std::chrono::steady_clock;

    LoopMainExecutor();

    void post(std::function<void()> work) override;
    bool isMainThread() const override;

    // Runs posted work as it arrives until a stop() is reached. Main thread only.
    void run();
    // Like run(), but gives up after `timeout`: true when a stop() was reached, false when the
    // time ran out first (work that is running then finishes; nothing else starts).
    bool runFor(Clock::duration timeout);

    // Safe from any thread and before run(). Work posted before the call still runs, then the
    // running (or next) run() returns; work posted afterwards waits for the next run().
    void stop();

    // Ends the running (or next) run() by throwing `failure` there, before any further work runs.
    // Safe from any thread; the first failure counts.
    void fail(std::exception_ptr failure);

    // `observer` made to end the loop through fail() when it throws, for callers that would
    // swallow its exception (a publisher notifying its subscribers does).
    template <class Observer>
    auto failingTheLoop(Observer observer) {
        return [this, observer = std::move(observer)](const auto&... arguments) {
            try {
                observer(arguments...);
            } catch (...) {
                fail(std::current_exception());
            }
        };
    }

private:
    std::thread::id mainThread_;
    detail::PendingWork work_;
    std::mutex failureMutex_;
    std::exception_ptr failure_;
    std::atomic<bool> failed_{false};

    bool runUntil(std::optional<Clock::time_point> deadline);
    void rethrowFailure();
};

}  // namespace vantorix
