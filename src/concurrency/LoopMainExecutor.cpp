#include "concurrency/LoopMainExecutor.h"

#include <cassert>
#include <utility>

namespace vantorix {

LoopMainExecutor::LoopMainExecutor() : mainThread_(std::this_thread::get_id()) {}

void LoopMainExecutor::post(std::function<void()> work) {
    if (work) work_.push(std::move(work));  // an empty function is the stop marker
}

bool LoopMainExecutor::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

void LoopMainExecutor::run() { runUntil(std::nullopt); }

bool LoopMainExecutor::runFor(Clock::duration timeout) { return runUntil(Clock::now() + timeout); }

void LoopMainExecutor::stop() { work_.push({}); }

bool LoopMainExecutor::runUntil(std::optional<Clock::time_point> deadline) {
    assert(isMainThread());
    for (;;) {
        auto item = work_.take(deadline);
        if (!item) return false;
        if (!*item) return true;
        detail::runMainWork(*item);
    }
}

}  // namespace vantorix
