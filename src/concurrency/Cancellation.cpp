#include "concurrency/Cancellation.h"

#include <thread>

namespace vantorix {

bool CancellationToken::sleepFor(Clock::duration duration) const { return sleepUntil(Clock::now() + duration); }

bool CancellationToken::sleepUntil(Clock::time_point deadline) const {
    if (!state_) {
        std::this_thread::sleep_until(deadline);
        return true;
    }
    std::unique_lock lock(state_->mutex);
    return !state_->wake.wait_until(lock, deadline,
                                    [this] { return state_->cancelled.load(std::memory_order_acquire); });
}

void CancellationSource::cancel() noexcept {
    if (state_->cancelled.exchange(true, std::memory_order_acq_rel)) return;
    {
        // Taking the mutex orders the flag before a sleeper's check, so no wake-up is lost.
        std::lock_guard lock(state_->mutex);
    }
    state_->wake.notify_all();
}

}  // namespace vantorix
