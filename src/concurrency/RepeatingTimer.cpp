#include "concurrency/RepeatingTimer.h"

#include "concurrency/SerialQueue.h"
#include "log/Log.h"

#include <sys/prctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace vantorix {

namespace {

using Duration = RepeatingTimer::Duration;

// The timer slack of one queue thread: the smallest leeway among the timers armed on it, or the
// thread's original slack when none is armed. Only the queue thread touches its registry.
class TimerSlack {
public:
    void request(const void* timer, Duration leeway) {
        const auto found = find(timer);
        if (found != entries_.end()) {
            found->second = leeway;
        } else {
            entries_.emplace_back(timer, leeway);
        }
        apply();
    }

    void release(const void* timer) {
        const auto found = find(timer);
        if (found == entries_.end()) return;
        entries_.erase(found);
        apply();
    }

private:
    std::vector<std::pair<const void*, Duration>> entries_;
    std::optional<unsigned long> original_;
    std::optional<unsigned long> applied_;

    std::vector<std::pair<const void*, Duration>>::iterator find(const void* timer) {
        return std::find_if(entries_.begin(), entries_.end(), [timer](const auto& e) { return e.first == timer; });
    }

    void apply() {
        if (!original_) {
            const int current = ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
            original_ = current > 0 ? static_cast<unsigned long>(current) : 50'000UL;
            applied_ = original_;
        }
        unsigned long wanted = *original_;
        if (!entries_.empty()) {
            const auto smallest = std::min_element(entries_.begin(), entries_.end(),
                                                   [](const auto& a, const auto& b) { return a.second < b.second; });
            // A slack of 0 would mean "the default"; one nanosecond is the least that can be asked.
            const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(smallest->second).count();
            wanted = static_cast<unsigned long>(std::max<std::int64_t>(ns, 1));
        }
        if (applied_ == wanted) return;
        if (::prctl(PR_SET_TIMERSLACK, wanted, 0, 0, 0) == 0) applied_ = wanted;
    }
};

thread_local TimerSlack tTimerSlack;

}  // namespace

// Each timer owns a kernel timer (timerfd) that repeats on its own: once armed with an absolute
// first deadline and an interval, it fires every interval without being re-armed, and a read of it
// says how many deadlines have passed since the last read. The queue watches the descriptor from
// the moment the timer is armed until it is disarmed, so a tick costs one wake-up and one read;
// missed deadlines collapse into a single tick, keeping the phase.
struct RepeatingTimer::State : std::enable_shared_from_this<RepeatingTimer::State> {
    explicit State(SerialQueue& timerQueue)
        : queue(timerQueue),
          label(timerQueue.label()),
          descriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {}

    ~State() {
        if (descriptor >= 0) ::close(descriptor);
    }

    State(const State&) = delete;
    State& operator=(const State&) = delete;

    SerialQueue& queue;
    const std::string label;
    const int descriptor;

    // Queue thread only.
    bool watching = false;
    std::uint64_t armedGeneration = 0;
    std::optional<Duration> slackRequested;

    // Guarded by `mutex`. `generation` changes whenever the schedule or state changes; a kernel
    // expiry read before the change has been applied to the kernel timer is ignored.
    mutable std::mutex mutex;
    std::condition_variable tickFinished;
    std::shared_ptr<const std::function<void()>> handler;
    Clock::time_point nextDeadline{};
    std::optional<Clock::time_point> lastDeadline;
    Duration interval{};
    Duration leeway{};
    std::uint64_t generation = 0;
    bool scheduled = false;
    bool resumed = false;
    bool cancelled = false;
    bool tickRunning = false;

    static itimerspec timerSpec(Clock::time_point deadline, Duration interval) {
        const auto toTimespec = [](std::chrono::nanoseconds ns) {
            timespec t{};
            t.tv_sec = static_cast<time_t>(ns.count() / 1'000'000'000);
            t.tv_nsec = static_cast<long>(ns.count() % 1'000'000'000);
            return t;
        };
        itimerspec spec{};
        // steady_clock is CLOCK_MONOTONIC; a zero it_value would disarm, so keep it at least 1 ns.
        const auto since = std::max(std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()),
                                    std::chrono::nanoseconds(1));
        spec.it_value = toTimespec(since);
        spec.it_interval = toTimespec(std::chrono::duration_cast<std::chrono::nanoseconds>(interval));
        return spec;
    }

    // Queue thread only: programs the kernel timer for `nextDeadline` and `interval` and has the
    // queue watch it, or disarms it and ends the watch when the timer is cancelled, suspended or
    // unscheduled.
    void arm() {
        std::unique_lock lock(mutex);
        const bool active = !cancelled && resumed && scheduled;
        const std::uint64_t armed = generation;
        const Clock::time_point deadline = nextDeadline;
        const Duration every = interval;
        const Duration wantedLeeway = leeway;
        lock.unlock();

        if (descriptor < 0) {
            if (active)
                log::logger("Concurrency").error("Timer on queue {} has no kernel timer; it never ticks", label);
            return;
        }
        if (!active) {
            const itimerspec off{};
            ::timerfd_settime(descriptor, 0, &off, nullptr);
            armedGeneration = armed;
            if (watching) {
                queue.unwatch(descriptor);
                watching = false;
            }
            if (slackRequested) {
                tTimerSlack.release(this);
                slackRequested.reset();
            }
            return;
        }
        if (slackRequested != wantedLeeway) {
            tTimerSlack.request(this, wantedLeeway);
            slackRequested = wantedLeeway;
        }
        const itimerspec spec = timerSpec(deadline, every);
        ::timerfd_settime(descriptor, TFD_TIMER_ABSTIME, &spec, nullptr);
        armedGeneration = armed;
        if (!watching) {
            queue.watch(descriptor, [self = shared_from_this()] { self->expired(); });
            watching = true;
        }
    }

    // Queue thread only: the kernel timer is readable, it fired one or more times.
    void expired() {
        std::uint64_t expirations = 0;
        const auto n = ::read(descriptor, &expirations, sizeof expirations);
        std::shared_ptr<const std::function<void()>> tickHandler;
        {
            std::lock_guard lock(mutex);
            if (cancelled || !resumed || !scheduled) return;
            // Nothing due, or the timer was re-programmed meanwhile: wait on.
            if (n != static_cast<ssize_t>(sizeof expirations) || expirations == 0 || armedGeneration != generation)
                return;
            // Ticks that were missed collapse into this one; the deadlines keep their phase.
            const Clock::time_point deadline = nextDeadline + interval * static_cast<Clock::rep>(expirations - 1);
            lastDeadline = deadline;
            nextDeadline = deadline + interval;
            tickHandler = handler;
            tickRunning = true;
        }

        if (tickHandler && *tickHandler) {
            try {
                (*tickHandler)();
            } catch (const std::exception& e) {
                log::logger("Concurrency").error("Timer handler on queue {} failed: {}", label, e.what());
            } catch (...) {
                log::logger("Concurrency").error("Timer handler on queue {} failed with an unknown exception", label);
            }
        }
        tickHandler.reset();  // a replaced handler dies here, before cancel() may return

        {
            std::lock_guard lock(mutex);
            tickRunning = false;
        }
        tickFinished.notify_all();
    }
};

RepeatingTimer::RepeatingTimer(SerialQueue& queue) : queue_(queue), state_(std::make_shared<State>(queue)) {}

RepeatingTimer::~RepeatingTimer() { cancel(); }

void RepeatingTimer::schedule(Clock::time_point firstDeadline, Duration interval, Duration leeway) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->cancelled) return;
        state_->nextDeadline = firstDeadline;
        state_->lastDeadline.reset();
        state_->interval = std::max(interval, Duration(1));
        state_->leeway = std::max(leeway, Duration::zero());
        state_->scheduled = true;
        ++state_->generation;
    }
    requestArm();
}

void RepeatingTimer::schedule(Duration delay, Duration interval, Duration leeway) {
    schedule(Clock::now() + delay, interval, leeway);
}

void RepeatingTimer::reschedule(Duration interval, Duration leeway) {
    interval = std::max(interval, Duration(1));
    {
        std::lock_guard lock(state_->mutex);
        if (state_->cancelled) return;
        if (!state_->scheduled) {
            state_->nextDeadline = Clock::now() + interval;
            state_->scheduled = true;
        } else if (state_->lastDeadline) {
            const Clock::time_point last = *state_->lastDeadline;
            Clock::time_point next = last + interval;
            const Clock::time_point now = Clock::now();
            if (next <= now) next = last + ((now - last) / interval + 1) * interval;
            state_->nextDeadline = next;
        }
        state_->interval = interval;
        state_->leeway = std::max(leeway, Duration::zero());
        ++state_->generation;
    }
    requestArm();
}

void RepeatingTimer::setHandler(std::function<void()> handler) {
    auto replacement = std::make_shared<const std::function<void()>>(std::move(handler));
    std::lock_guard lock(state_->mutex);
    state_->handler.swap(replacement);
    // `replacement` now holds the old handler; unless a running tick shares it, it is destroyed
    // here, after the lock is released.
}

void RepeatingTimer::resume() {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->cancelled || state_->resumed) return;
        state_->resumed = true;
        ++state_->generation;
    }
    requestArm();
}

void RepeatingTimer::cancel() {
    {
        std::unique_lock lock(state_->mutex);
        if (!state_->cancelled) {
            state_->cancelled = true;
            ++state_->generation;
        }
        if (!queue_.isCurrent()) state_->tickFinished.wait(lock, [this] { return !state_->tickRunning; });
    }
    requestArm();
}

bool RepeatingTimer::isCancelled() const {
    std::lock_guard lock(state_->mutex);
    return state_->cancelled;
}

RepeatingTimer::Duration RepeatingTimer::interval() const {
    std::lock_guard lock(state_->mutex);
    return state_->interval;
}

RepeatingTimer::Duration RepeatingTimer::leeway() const {
    std::lock_guard lock(state_->mutex);
    return state_->leeway;
}

void RepeatingTimer::requestArm() {
    if (queue_.isCurrent()) {
        state_->arm();
    } else {
        queue_.async([state = state_] { state->arm(); });
    }
}

}  // namespace vantorix
