#include "concurrency/RepeatingTimer.h"

#include "WaitFor.h"
#include "concurrency/SerialQueue.h"

#include <gtest/gtest.h>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;
using Clock = RepeatingTimer::Clock;

// Tick start times, written on the queue; read after cancel(), which orders the reads after every tick.
struct TickLog {
    void record() {
        times.push_back(Clock::now());
        ++count;
    }
    // The i-th tick never starts before the i-th deadline of the grid first + k * interval.
    void expectNeverEarly(Clock::time_point first, Clock::duration interval) const {
        for (std::size_t i = 0; i < times.size(); ++i) {
            ASSERT_GE(times[i], first) << "tick " << i;
            EXPECT_LE(i, static_cast<std::size_t>((times[i] - first) / interval)) << "tick " << i << " came early";
        }
    }
    std::vector<Clock::time_point> times;
    std::atomic<std::size_t> count{0};
};

void start(RepeatingTimer& timer, Clock::time_point first, Clock::duration interval, std::function<void()> handler) {
    timer.setHandler(std::move(handler));
    timer.schedule(first, interval, 0ns);
    timer.resume();
}

// An hour's interval shortened after the first tick: the next tick comes one new interval after
// the first deadline, and every tick runs on the queue on the grid of that deadline.
TEST(RepeatingTimer, TicksOnTheQueueOnTheGridOfItsFirstDeadlineAndReschedulesAtTheNextTick) {
    for (const bool fromHandler : {true, false}) {
        SCOPED_TRACE(fromHandler ? "rescheduled by the handler" : "rescheduled by another thread");
        SerialQueue queue("com.vantorix.test.grid", QualityOfService::userInteractive);
        TickLog log;
        std::atomic<bool> offQueue{false};
        RepeatingTimer timer(queue);
        const auto first = Clock::now() + 5ms;
        start(timer, first, 1h, [&] {
            if (!queue.isCurrent()) offQueue = true;
            log.record();
            if (fromHandler && log.times.size() == 1) timer.reschedule(3ms, 200us);
        });
        ASSERT_TRUE(waitFor([&] { return log.count >= 1; }));
        if (!fromHandler) timer.reschedule(3ms, 200us);
        ASSERT_TRUE(waitFor([&] { return log.count >= 30; })) << "the one-hour interval is still in force";
        timer.cancel();
        EXPECT_FALSE(offQueue.load());
        log.expectNeverEarly(first, 3ms);
    }
}

// From another thread cancel() waits for a running tick; from the handler (the way an owner stops
// on its own queue: clear the handler, cancel, drop the timer) it does not. Either way no tick
// starts afterwards, even when the timer is scheduled and resumed again.
TEST(RepeatingTimer, NoTickRunsAfterCancelReturns) {
    SerialQueue queue("com.vantorix.test.cancel", QualityOfService::userInteractive);
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> ticks{0};
        std::atomic<bool> inHandler{false};
        RepeatingTimer timer(queue);
        start(timer, Clock::now(), 500us, [&] {
            inHandler = true;
            std::this_thread::sleep_for(100us);
            ++ticks;
            inHandler = false;
        });
        ASSERT_TRUE(waitFor([&] { return ticks >= 3; }));
        timer.cancel();
        EXPECT_FALSE(inHandler.load()) << "round " << round;
        const int atCancel = ticks;
        timer.schedule(Clock::now(), 500us, 0ns);
        timer.resume();
        std::this_thread::sleep_for(5ms);
        EXPECT_EQ(ticks.load(), atCancel) << "round " << round;
    }
    std::atomic<int> ticks{0};
    auto timer = std::make_unique<RepeatingTimer>(queue);
    start(*timer, Clock::now(), 1ms, [&] {
        if (++ticks == 3) {
            timer->setHandler({});
            timer->cancel();
            timer.reset();
        }
    });
    ASSERT_TRUE(waitFor([&] { return ticks >= 3; }));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(ticks.load(), 3);
    EXPECT_TRUE(queue.sync([&] { return timer == nullptr; }));  // also orders the reset before ours
}

// The queue's thread waits for its timers' deadlines itself; whatever else the queue is given in
// the meantime must still reach it at once, not at the next deadline an hour away. Afterwards the
// timer must go on ticking.
TEST(RepeatingTimer, AQueueWaitingForAFarDeadlineStillServesEverythingElse) {
    for (const bool viaAsio : {false, true}) {
        for (const bool fromHandler : {false, true}) {
            SCOPED_TRACE(std::string(viaAsio ? "Asio timer" : "work") +
                         (fromHandler ? " from the handler" : " from elsewhere"));
            SerialQueue queue("com.vantorix.test.far", QualityOfService::userInteractive);
            std::optional<asio::steady_timer> asio;
            std::atomic<bool> done{false};
            std::atomic<int> ticks{0};
            // Work for the queue, or an Asio timer on its context, which completes through Asio's own wait.
            const auto act = [&] {
                queue.async([&] {
                    if (!viaAsio) {
                        done = true;
                        return;
                    }
                    asio.emplace(queue.context(), 1ms);
                    asio->async_wait([&done](const std::error_code& error) { done = !error; });
                });
            };
            RepeatingTimer timer(queue);
            start(timer, Clock::now(), 1h, [&] {
                if (++ticks == 1 && fromHandler) act();
            });
            ASSERT_TRUE(waitFor([&] { return ticks >= 1; }));
            if (!fromHandler) act();
            EXPECT_TRUE(waitFor([&] { return done.load(); }));
            timer.reschedule(1ms, 0ns);
            EXPECT_TRUE(waitFor([&] { return ticks >= 4; }));
            timer.cancel();
            queue.sync([&] { asio.reset(); });
        }
    }
}

}  // namespace
}  // namespace vantorix
