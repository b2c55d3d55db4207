#pragma once

#include "concurrency/MainExecutor.h"
#include "concurrency/PendingWork.h"

#include <chrono>
#include <thread>

namespace vantorix {

// The main thread of the command-line tool: the thread that constructs the executor runs the
// posted work in its loop, run(), until stop() is called.
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

private:
    std::thread::id mainThread_;
    detail::PendingWork work_;

    bool runUntil(std::optional<Clock::time_point> deadline);
};

}  // namespace vantorix
