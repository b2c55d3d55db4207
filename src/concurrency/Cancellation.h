#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace vantorix {

namespace detail {

struct CancellationState {
    std::atomic<bool> cancelled{false};
    std::mutex mutex;
    std::condition_variable wake;
};

}  // namespace detail

// The read side of cooperative cancellation: long work polls isCancelled() (one atomic load) and
// sleeps with sleepFor(), which wakes at once when cancellation is requested. A default-made
// token is never cancelled. Tokens are cheap to copy and safe to use from any thread.
class CancellationToken {
public:
    using Clock = std::chrono::steady_clock;

    CancellationToken() = default;

    bool isCancelled() const noexcept { return state_ && state_->cancelled.load(std::memory_order_acquire); }

    // Sleeps for `duration` unless cancellation is requested first. True when the whole
    // duration passed without cancellation, false when cancelled (before or during the sleep).
    bool sleepFor(Clock::duration duration) const;
    bool sleepUntil(Clock::time_point deadline) const;

private:
    friend class CancellationSource;
    explicit CancellationToken(std::shared_ptr<detail::CancellationState> state) : state_(std::move(state)) {}

    std::shared_ptr<detail::CancellationState> state_;
};

// The write side: hands out tokens and requests cancellation, once and for good.
class CancellationSource {
public:
    CancellationSource() : state_(std::make_shared<detail::CancellationState>()) {}

    CancellationToken token() const { return CancellationToken(state_); }

    // Idempotent; wakes every token that sleeps. Safe from any thread.
    void cancel() noexcept;

    bool isCancelled() const noexcept { return state_->cancelled.load(std::memory_order_acquire); }

private:
    std::shared_ptr<detail::CancellationState> state_;
};

}  // namespace vantorix
