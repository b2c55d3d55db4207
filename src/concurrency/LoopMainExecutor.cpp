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

void LoopMainExecutor::fail(std::exception_ptr failure) {
    {
        std::lock_guard lock(failureMutex_);
        if (failure_) return;
        failure_ = std::move(failure);
        failed_ = true;
    }
    post([] {});  // wakes a loop that waits for work
}

void LoopMainExecutor::rethrowFailure() {
    std::exception_ptr failure;
    {
        std::lock_guard lock(failureMutex_);
        failure = std::exchange(failure_, nullptr);
        failed_ = false;
    }
    if (failure) std::rethrow_exception(failure);
}

bool LoopMainExecutor::runUntil(std::optional<Clock::time_point> deadline) {
    assert(isMainThread());
    for (;;) {
        if (failed_) rethrowFailure();
        auto item = work_.take(deadline);
        if (!item) return false;
        if (!*item) return true;
        // Not caught here: the exception leaves the loop, and with it the command.
        (*item)();
    }
}

}  // namespace vantorix
