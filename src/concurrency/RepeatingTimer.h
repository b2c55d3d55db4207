#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vantorix {

class SerialQueue;

// A repeating timer whose ticks run the handler on a serial queue, like a dispatch timer source.
//
// A new timer is suspended and unscheduled: give it a schedule and a handler, then resume() it.
// Deadlines are absolute: each tick is due one interval after the deadline of the tick before,
// however late that tick ran, so the timer does not drift. When the queue falls behind by a whole
// interval or more, the missed ticks are skipped (no burst of catch-up ticks): the next tick is
// due at the first deadline of the same phase that still lies in the future.
//
// Leeway is how late a tick may come. The queue thread's timer slack follows the smallest leeway
// of the timers armed on it, which lets the kernel coalesce the thread's other timed waits; the
// deadlines themselves are kept by a timerfd, which the kernel fires without slack.
//
// Every member function may be called from any thread. A tick in steady state allocates nothing.
// Cancel or destroy the timer before its queue is destroyed: a live timer keeps the queue busy.
class RepeatingTimer {
public:
    using Clock = std::chrono::steady_clock;
    using Duration = Clock::duration;

    explicit RepeatingTimer(SerialQueue& queue);
    // Cancels the timer (see cancel()).
    ~RepeatingTimer();

    RepeatingTimer(const RepeatingTimer&) = delete;
    RepeatingTimer& operator=(const RepeatingTimer&) = delete;

    // The first tick is due at `firstDeadline` (at once when it has passed), then every `interval`
    // (at least one nanosecond). Replaces any earlier schedule.
    void schedule(Clock::time_point firstDeadline, Duration interval, Duration leeway);
    // The same, with the first deadline `delay` from now.
    void schedule(Duration delay, Duration interval, Duration leeway);

    // Changes the interval and leeway from the next tick on, keeping the phase: the next tick is
    // due one new interval after the last tick's deadline (or, when that has passed, at the first
    // deadline of that phase still ahead). Before the first tick, only the interval changes. An
    // unscheduled timer is scheduled with its first tick one interval from now.
    void reschedule(Duration interval, Duration leeway);

    // Replaces the handler. A tick that has already started finishes with the handler it started
    // with; every tick that starts after this returns uses the new one. An empty handler makes
    // ticks do nothing. The replaced handler is destroyed on whichever thread releases it last.
    void setHandler(std::function<void()> handler);

    // Starts the timer. Calling it again does nothing.
    void resume();

    // Stops the timer for good; later schedule(), reschedule() and resume() calls do nothing.
    // When cancel() returns, no tick will start any more. Called from another thread, it also
    // waits for a tick that is running on the queue to finish, so its handler must not wait for
    // the thread that cancels the timer. Called on the queue (from the handler, for instance),
    // it does not wait.
    void cancel();

    bool isCancelled() const;
    Duration interval() const;
    Duration leeway() const;

private:
    struct State;

    SerialQueue& queue_;
    std::shared_ptr<State> state_;

    void requestArm();
};

}  // namespace vantorix
