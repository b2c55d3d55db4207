#pragma once

#include "concurrency/MainExecutor.h"
#include "concurrency/PendingWork.h"

#include <chrono>
#include <cstddef>
#include <thread>

namespace vantorix {

// The main thread of a test (a test double of MainExecutor): posted work waits until the test runs it with drain() or
// runUntil() on the thread that constructed the executor. Work still pending when the executor
// is destroyed is discarded without running.
class ManualMainExecutor final : public MainExecutor {
public:
    using Clock = std::chrono::steady_clock;

    ManualMainExecutor();

    void post(std::function<void()> work) override;
    bool isMainThread() const override;

    // Runs pending work, including work posted meanwhile, until none is left; returns how many
    // items ran. Does not wait for work that other threads have yet to post.
    std::size_t drain();

    // Runs work as it arrives, waiting for it, until `done()` holds or `timeout` has passed.
    // `done()` is checked first, after each item and every few milliseconds while waiting.
    // True when `done()` held.
    bool runUntil(const std::function<bool()>& done, Clock::duration timeout);

    std::size_t pendingCount() const;

private:
    std::thread::id mainThread_;
    detail::PendingWork work_;
};

}  // namespace vantorix
