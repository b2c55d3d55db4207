#pragma once

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstddef>
#include <thread>

#include "concurrency/MainExecutor.h"
#include "concurrency/PendingWork.h"

namespace vantorix {

// The main thread of a test (a test double of MainExecutor): posted work waits until the test runs it with drain() or
// runUntil() on the thread that constructed the executor. Work still pending when the executor
// is destroyed is discarded without running.
class ManualMainExecutor final : public MainExecutor {
public:
    using Clock = std::chrono::steady_clock;

    void post(std::function<void()> work) override {
        if (work) work_.push(std::move(work));
    }
    bool isMainThread() const override { return std::this_thread::get_id() == mainThread_; }

    // Runs pending work, including work posted meanwhile, until none is left; returns how many
    // items ran. Does not wait for work that other threads have yet to post.
    std::size_t drain() {
        assert(isMainThread());
        std::size_t ran = 0;
        for (; auto item = work_.tryTake(); ++ran) detail::runMainWork(*item);
        return ran;
    }

    // Runs work as it arrives, waiting for it, until `done()` holds or `timeout` has passed.
    // `done()` is checked first, after each item and every few milliseconds while waiting (it may
    // also turn true through other threads without any work being posted). True when it held.
    bool runUntil(const std::function<bool()>& done, Clock::duration timeout) {
        assert(isMainThread());
        const Clock::time_point deadline = Clock::now() + timeout;
        while (!done()) {
            const Clock::time_point now = Clock::now();
            if (now >= deadline) return false;
            if (auto item = work_.take(std::min(deadline, now + std::chrono::milliseconds(5)))) {
                detail::runMainWork(*item);
            }
        }
        return true;
    }

    std::size_t pendingCount() const { return work_.size(); }

private:
    std::thread::id mainThread_ = std::this_thread::get_id();
    detail::PendingWork work_;
};

}  // namespace vantorix
