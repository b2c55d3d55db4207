#include "support/ManualMainExecutor.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace vantorix {

ManualMainExecutor::ManualMainExecutor() : mainThread_(std::this_thread::get_id()) {}

void ManualMainExecutor::post(std::function<void()> work) {
    if (work) work_.push(std::move(work));
}

bool ManualMainExecutor::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

std::size_t ManualMainExecutor::drain() {
    assert(isMainThread());
    std::size_t ran = 0;
    while (auto item = work_.tryTake()) {
        detail::runMainWork(*item);
        ++ran;
    }
    return ran;
}

bool ManualMainExecutor::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
    assert(isMainThread());
    // `done()` may also turn true through other threads without any work being posted, so the
    // wait for work is cut into short slices and the condition is checked after each.
    constexpr auto kSlice = std::chrono::milliseconds(5);
    const Clock::time_point deadline = Clock::now() + timeout;
    while (!done()) {
        const Clock::time_point now = Clock::now();
        if (now >= deadline) return false;
        if (auto item = work_.take(std::min(deadline, now + kSlice))) detail::runMainWork(*item);
    }
    return true;
}

std::size_t ManualMainExecutor::pendingCount() const { return work_.size(); }

}  // namespace vantorix
