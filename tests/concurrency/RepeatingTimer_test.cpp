#include "concurrency/RepeatingTimer.h"

#include "WaitFor.h"
#include "concurrency/SerialQueue.h"

#include <asio/steady_timer.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

// Counts each thread's allocations, so that a test can check that steady ticks allocate nothing.
namespace {
thread_local std::size_t tAllocations = 0;
void* countedAllocation(std::size_t size) {
    ++tAllocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
}  // namespace
void* operator new(std::size_t size) { return countedAllocation(size); }
void* operator new[](std::size_t size) { return countedAllocation(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;
using Clock = RepeatingTimer::Clock;

// Tick start times, written on the queue; read after cancel(), which orders the reads after every tick.
struct TickLog {
    TickLog() { times.reserve(10000); }
    void record() {
        times.push_back(Clock::now());
        ++count;
    }
    std::vector<Clock::time_point> times;
    std::atomic<std::size_t> count{0};
};

// The i-th tick never starts before the i-th deadline of the grid first + k * interval.
void expectNeverEarly(const TickLog& log, Clock::time_point first, Clock::duration interval) {
    for (std::size_t i = 0; i < log.times.size(); ++i) {
        ASSERT_GE(log.times[i], first) << "tick " << i;
        const auto deadlinesPassed = static_cast<std::size_t>((log.times[i] - first) / interval) + 1;
        EXPECT_LE(i + 1, deadlinesPassed) << "tick " << i << " came before its deadline";
    }
}

void start(RepeatingTimer& timer, Clock::time_point first, Clock::duration interval, std::function<void()> handler) {
    timer.setHandler(std::move(handler));
    timer.schedule(first, interval, 0ns);
    timer.resume();
}

TEST(RepeatingTimer, TicksOnTheQueueOnTheGridOfItsFirstDeadline) {
    SerialQueue queue("com.vantorix.test.grid", QualityOfService::userInteractive);
    TickLog log;
    std::atomic<bool> offQueue{false};
    RepeatingTimer timer(queue);
    const auto first = Clock::now() + 20ms;
    timer.setHandler([&] {
        if (!queue.isCurrent()) offQueue = true;
        log.record();
    });
    timer.schedule(first, 3ms, 200us);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(log.count.load(), 0U) << "ticked before resume()";
    timer.resume();
    ASSERT_TRUE(waitFor([&] { return log.count >= 30; }));
    timer.cancel();
    EXPECT_FALSE(offQueue.load());
    expectNeverEarly(log, first, 3ms);
}

TEST(RepeatingTimer, ASlowTickSkipsTheMissedDeadlinesInsteadOfBursting) {
    SerialQueue queue("com.vantorix.test.skip", QualityOfService::userInteractive);
    TickLog log;
    Clock::time_point slowTickEnd;
    RepeatingTimer timer(queue);
    const auto first = Clock::now() + 10ms;
    start(timer, first, 10ms, [&] {
        log.record();
        if (log.times.size() == 1) {
            std::this_thread::sleep_for(35ms);  // misses the next three deadlines
            slowTickEnd = Clock::now();
        }
    });
    ASSERT_TRUE(waitFor([&] { return log.count >= 6; }));
    timer.cancel();

    // Of the missed deadlines only one tick may run before the next grid deadline.
    const Clock::time_point nextGridDeadline = first + ((slowTickEnd - first + 10ms - 1ns) / 10ms) * 10ms;
    std::size_t catchUp = 0;
    for (const auto t : log.times) catchUp += (t >= slowTickEnd && t < nextGridDeadline) ? 1U : 0U;
    EXPECT_LE(catchUp, 1U);
    expectNeverEarly(log, first, 10ms);
}

TEST(RepeatingTimer, RescheduleToAShorterIntervalTakesEffectAtTheNextTickKeepingThePhase) {
    for (const bool fromHandler : {true, false}) {
        SCOPED_TRACE(fromHandler ? "rescheduled by the handler" : "rescheduled by another thread");
        SerialQueue queue("com.vantorix.test.shorter", QualityOfService::userInteractive);
        TickLog log;
        RepeatingTimer timer(queue);
        const auto first = Clock::now();
        start(timer, first, 1h, [&] {
            log.record();
            if (fromHandler && log.times.size() == 1) timer.reschedule(2ms, 0ns);
        });
        ASSERT_TRUE(waitFor([&] { return log.count >= 1; }));
        if (!fromHandler) timer.reschedule(2ms, 0ns);
        ASSERT_TRUE(waitFor([&] { return log.count >= 6; })) << "the one-hour interval is still in force";
        timer.cancel();
        expectNeverEarly(log, first, 2ms);
    }
}

TEST(RepeatingTimer, NoTickRunsAfterCancelReturnsOnAnotherThread) {
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
        timer.schedule(Clock::now(), 500us, 0ns);  // a cancelled timer stays cancelled
        timer.resume();
        std::this_thread::sleep_for(5ms);
        EXPECT_EQ(ticks.load(), atCancel) << "round " << round;
    }
}

TEST(RepeatingTimer, StoppingFromItsOwnHandlerEndsTheTicks) {
    SerialQueue queue("com.vantorix.test.selfcancel", QualityOfService::userInteractive);
    // The way an owner stops on its own queue: clear the handler, cancel, drop the timer.
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

TEST(RepeatingTimer, AReplacedHandlerIsNotCalledOnceTheNewOneHasRun) {
    SerialQueue queue("com.vantorix.test.handler", QualityOfService::userInteractive);
    std::atomic<int> oldTicks{0};
    std::atomic<int> newTicks{0};
    RepeatingTimer timer(queue);
    start(timer, Clock::now(), 200us, [&] { ++oldTicks; });
    ASSERT_TRUE(waitFor([&] { return oldTicks >= 3; }));

    // Replaced from several threads; each payload dies on whichever thread lets go of it last.
    std::vector<std::thread> swappers;
    for (int t = 0; t < 3; ++t) {
        swappers.emplace_back([&] {
            for (int i = 0; i < 200; ++i) timer.setHandler([&newTicks, payload = std::make_shared<int>(1)] { newTicks += *payload; });
        });
    }
    for (auto& t : swappers) t.join();
    ASSERT_TRUE(waitFor([&] { return newTicks >= 1; }));
    const int oldAfterSwitch = oldTicks;
    ASSERT_TRUE(waitFor([&] { return newTicks >= 5; }));
    EXPECT_EQ(oldTicks.load(), oldAfterSwitch);
    timer.cancel();
}

// The queue's thread waits for its timers' deadlines itself; whatever else the queue is given in
// the meantime must still reach it at once, not at the next deadline an hour away. Afterwards the
// timer must go on ticking.
TEST(RepeatingTimer, AQueueWaitingForAFarDeadlineStillServesEverythingElse) {
    struct Case {
        const char* name;
        bool fromHandler;  // act from the first tick's handler rather than from the test's thread
        std::function<void(SerialQueue&, std::optional<asio::steady_timer>&, std::atomic<bool>&)> act;
    };
    const auto post = [](SerialQueue& queue, std::optional<asio::steady_timer>&, std::atomic<bool>& done) {
        queue.async([&done] { done = true; });
    };
    // An Asio timer on the queue's context completes through Asio's own wait.
    const auto asioTimer = [](SerialQueue& queue, std::optional<asio::steady_timer>& asio, std::atomic<bool>& done) {
        queue.async([&queue, &asio, &done] {
            asio.emplace(queue.context(), std::chrono::milliseconds(1));
            asio->async_wait([&done](const std::error_code& error) { done = !error; });
        });
    };
    const std::vector<Case> cases{
        {"work from another thread", false, post},
        {"work from the tick's handler", true, post},
        {"an Asio timer made on the queue", false, asioTimer},
        {"an Asio timer made by the tick's handler", true, asioTimer},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SerialQueue queue("com.vantorix.test.far", QualityOfService::userInteractive);
        std::optional<asio::steady_timer> asio;
        std::atomic<bool> done{false};
        std::atomic<int> ticks{0};
        RepeatingTimer timer(queue);
        start(timer, Clock::now(), 1h, [&] {
            if (++ticks == 1 && c.fromHandler) c.act(queue, asio, done);
        });
        ASSERT_TRUE(waitFor([&] { return ticks >= 1; }));
        if (!c.fromHandler) c.act(queue, asio, done);
        EXPECT_TRUE(waitFor([&] { return done.load(); }));
        timer.reschedule(1ms, 0ns);
        EXPECT_TRUE(waitFor([&] { return ticks >= 4; }));
        timer.cancel();
        queue.sync([&] { asio.reset(); });
    }
}

TEST(RepeatingTimer, SteadyTicksAllocateNothing) {
    SerialQueue queue("com.vantorix.test.alloc", QualityOfService::userInteractive);
    constexpr std::size_t kTicks = 300;
    std::vector<std::size_t> allocationsAtTick(kTicks);
    std::atomic<std::size_t> ticks{0};
    RepeatingTimer timer(queue);
    start(timer, Clock::now(), 100us, [&] {
        if (const std::size_t i = ticks; i < kTicks) {
            allocationsAtTick[i] = tAllocations;
            ticks = i + 1;
        }
    });
    ASSERT_TRUE(waitFor([&] { return ticks >= kTicks; }));
    timer.cancel();
    EXPECT_EQ(allocationsAtTick[kTicks - 1], allocationsAtTick[kTicks / 3]);
}

}  // namespace
}  // namespace vantorix
