#include "concurrency/LoopMainExecutor.h"
#include "concurrency/Published.h"
#include "concurrency/RepeatingTimer.h"
#include "concurrency/SerialQueue.h"
#include "concurrency/Task.h"

#include "WaitFor.h"
#include "log/Log.h"

#include <gtest/gtest.h>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;
using Log = std::vector<std::string>;

TEST(SerialQueue, RunsItemsOneAtATimeKeepingEachProducersOrder) {
    constexpr int kProducers = 4, kItems = 2000;
    SerialQueue queue("com.vantorix.test.order", QualityOfService::utility);
    std::vector<std::pair<int, int>> seen;  // touched on the queue only
    std::atomic<int> running{0}, overlaps{0};
    testing::postFromThreads(kProducers, kItems, [&](int p, int i) {
        queue.async([&, p, i] {
            if (running.fetch_add(1) != 0) overlaps.fetch_add(1);
            seen.emplace_back(p, i);
            running.fetch_sub(1);
        });
    });
    const auto result = queue.sync([&] { return seen; });
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_TRUE(testing::keepsEachProducersOrder(result, kProducers, kItems));
}

TEST(SerialQueue, SyncWaitsForEarlierWorkRunsInlineOnItsQueueAndRethrows) {
    log::Capture capture;
    SerialQueue queue("com.vantorix.test.sync", QualityOfService::userInitiated);
    SerialQueue other("com.vantorix.test.other", QualityOfService::utility);
    int value = 0;  // queue only
    for (int i = 0; i < 100; ++i) queue.async([&] { ++value; });
    queue.async([] { throw std::runtime_error("disk on fire"); });  // logged; the queue carries on
    EXPECT_EQ(queue.sync([&] { return value; }), 100);

    EXPECT_FALSE(queue.isCurrent());
    EXPECT_TRUE(queue.sync([&] { return queue.isCurrent(); }));
    EXPECT_FALSE(other.sync([&] { return queue.isCurrent(); }));
    // Nested sync on the same queue would wait for itself unless it ran inline.
    EXPECT_EQ(queue.sync([&] { return queue.sync([] { return 7; }) + other.sync([] { return 1; }); }), 8);
    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);

    EXPECT_EQ(capture.messages("Concurrency", log::Level::error).size(), 1U);
}

// Also when the last reference goes on the queue's own thread, by one of its items.
TEST(SerialQueue, DestructionFinishesQueuedWorkAndWhatItEnqueues) {
    std::atomic<int> ran{0};
    std::promise<void> release;
    {
        SerialQueue queue("com.vantorix.test.drain", QualityOfService::background);
        queue.async([released = release.get_future().share()] { released.wait(); });
        for (int i = 0; i < 50; ++i) {
            queue.async([&] {
                ++ran;
                queue.async([&] { ++ran; });  // enqueued while the queue is being destroyed
            });
        }
        release.set_value();
    }
    EXPECT_EQ(ran.load(), 100);

    auto queue = std::make_shared<SerialQueue>("com.vantorix.test.self", QualityOfService::utility);
    std::promise<void> go;
    queue->async([owner = queue, started = go.get_future().share()]() mutable {
        started.wait();
        owner.reset();
    });
    queue->async([&] { ++ran; });
    queue.reset();
    go.set_value();
    EXPECT_TRUE(testing::waitFor([&] { return ran == 101; }));
}

TEST(Task, DroppingOrReplacingTheHandleCancelsWithoutWaiting) {
    struct Shared {
        std::atomic<int> cancelsSeen{0}, finished{0};
        std::atomic<bool> mayFinish{false};
    };
    auto shared = std::make_shared<Shared>();
    const auto body = [shared](const CancellationToken& token) {
        token.sleepFor(1h);
        if (token.isCancelled()) ++shared->cancelsSeen;
        // Gives up after a while, so that a handle that waits shows as a failure, not a hang.
        waitFor([&] { return shared->mayFinish.load(); }, 10s);
        ++shared->finished;
    };
    {
        Task dropped("com.vantorix.test.dropped", QualityOfService::utility, body);
        Task replaced("com.vantorix.test.replaced", QualityOfService::utility, body);
        replaced = Task("com.vantorix.test.quick", QualityOfService::utility, [](const CancellationToken&) {});
        Task moved = std::move(dropped);  // moving keeps the task running
        EXPECT_FALSE(moved.isCancelled());
    }
    EXPECT_EQ(shared->finished.load(), 0);
    EXPECT_TRUE(waitFor([&] { return shared->cancelsSeen == 2; }));
    shared->mayFinish = true;
    EXPECT_TRUE(waitFor([&] { return shared->finished == 2; }));
}

// Work from other threads runs on the loop's thread in each poster's order. A run ends after the
// work posted before its stop, or at a failure, with its exception, instead of waiting for a stop
// that the failed work would have asked for; what is left waits for the next run.
TEST(LoopMainExecutor, RunsWorkUntilTheStopOrAFailureAndKeepsTheRestForTheNextRun) {
    constexpr int kProducers = 4, kItems = 500;
    LoopMainExecutor executor;
    std::vector<std::pair<int, int>> seen;  // main thread only
    std::atomic<int> offMain{0};
    std::thread poster([&] {
        testing::postFromThreads(kProducers, kItems, [&](int p, int i) {
            executor.post([&, p, i] {
                if (!executor.isMainThread()) ++offMain;
                seen.emplace_back(p, i);
            });
        });
        executor.stop();
        executor.post([] { throw std::runtime_error("failed"); });
        executor.post([&] {
            seen.emplace_back(-1, -1);
            executor.stop();
        });
    });
    EXPECT_TRUE(executor.runFor(10s));
    poster.join();
    EXPECT_EQ(offMain.load(), 0);
    EXPECT_TRUE(testing::keepsEachProducersOrder(seen, kProducers, kItems));
    EXPECT_THROW(executor.run(), std::runtime_error);
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProducers * kItems));
    EXPECT_TRUE(executor.runFor(10s));
    EXPECT_EQ(seen.back(), std::make_pair(-1, -1));
    EXPECT_FALSE(executor.runFor(20ms)) << "no stop is pending";

    // A caller that swallows exceptions (a publisher notifying a subscriber) hands them to the loop,
    // where the failure comes before the stop the item asked for.
    auto observe = executor.failingTheLoop([](int value) {
        if (value < 0) throw std::invalid_argument("negative");
    });
    bool carriedOn = false;
    executor.post([&] {
        observe(-1);
        carriedOn = true;
        executor.stop();
    });
    EXPECT_THROW(executor.run(), std::invalid_argument);
    EXPECT_TRUE(carriedOn);
    EXPECT_TRUE(executor.runFor(10s));
}

// In subscription order, after the value changed. A subscriber may cancel itself or one not told
// yet and add another; a change made while notifying ends that round and starts one for the new value.
TEST(Published, SubscribersAreToldInOrderAndMayComeAndGoOrChangeTheValueDuringANotification) {
    Published<int> value;
    Log log;
    Subscription a, b, c, late;
    a = value.subscribe([&](const int& v) {
        log.push_back("a" + std::to_string(v));
        if (v == 1) {
            a.cancel();
            c.cancel();
            late = value.subscribe([&](const int& w) { log.push_back("late" + std::to_string(w)); });
        }
    });
    b = value.subscribe([&](const int& v) {
        log.push_back("b" + std::to_string(v) + "/" + std::to_string(value.get()));
        if (v == 2) value.set(3);
    });
    c = value.subscribe([&](const int& v) { log.push_back("c" + std::to_string(v)); });
    value.set(1);
    value.update([](int& v) { v = 2; });
    // late is never told 2: the round for 2 ended when b set 3.
    EXPECT_EQ(log, (Log{"a1", "b1/1", "b2/2", "b3/3", "late3"}));
    EXPECT_EQ(value.subscriberCount(), 2U);
}

TEST(Published, SubscriptionsEndWithTheirLastOwner) {
    Published<int> value;
    int told = 0;
    {
        Subscription outer;
        {
            Subscription inner = value.subscribe([&](const int&) { ++told; });
            outer = std::move(inner);  // the moved-from subscription must not unsubscribe
        }
        value.set(1);
        outer = value.subscribe([&](const int&) { told += 100; });  // assigning over one ends it
        value.set(2);
    }
    value.set(3);
    EXPECT_EQ(told, 101);

    // A subscription that outlives its value ends quietly (AddressSanitizer checks the access).
    Subscription survivor;
    {
        Published<int> shortLived;
        survivor = shortLived.subscribe([&](const int&) { ++told; });
        shortLived.set(1);
    }
    survivor.cancel();
    EXPECT_EQ(told, 102);
}

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
