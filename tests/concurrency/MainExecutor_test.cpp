#include "concurrency/LoopMainExecutor.h"
#include "support/ManualMainExecutor.h"

#include "WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;

constexpr int kProducers = 4;
constexpr int kItems = 500;

// Each item records (producer, index) into `seen` (main thread only) and counts runs off the main thread.
void postFromSeveralThreads(MainExecutor& executor, std::vector<std::pair<int, int>>& seen, std::atomic<int>& offMain) {
    testing::postFromThreads(kProducers, kItems, [&](int p, int i) {
        executor.post([&, p, i] {
            if (!executor.isMainThread()) ++offMain;
            seen.emplace_back(p, i);
        });
    });
}

TEST(ManualMainExecutor, RunsPostedWorkOnlyWhenDrainedInEachPostersOrder) {
    ManualMainExecutor executor;
    std::vector<std::pair<int, int>> seen;
    std::atomic<int> offMain{0};
    postFromSeveralThreads(executor, seen, offMain);
    EXPECT_TRUE(seen.empty());
    EXPECT_FALSE(std::async(std::launch::async, [&] { return executor.isMainThread(); }).get());

    executor.post([&] { executor.post([&] { seen.emplace_back(-1, -1); }); });  // posted while draining
    EXPECT_EQ(executor.drain(), static_cast<std::size_t>(kProducers * kItems + 2));
    EXPECT_EQ(offMain.load(), 0);
    ASSERT_EQ(seen.back(), std::make_pair(-1, -1));
    seen.pop_back();
    EXPECT_TRUE(testing::keepsEachProducersOrder(seen, kProducers, kItems));
}

TEST(ManualMainExecutor, RunUntilWaitsForWorkOrForAConditionMetElsewhere) {
    ManualMainExecutor executor;
    int delivered = 0;
    std::atomic<bool> flag{false};
    std::thread worker([&] {
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(1ms);
            executor.post([&] { ++delivered; });
        }
        flag = true;  // posts nothing for this one
    });
    EXPECT_TRUE(executor.runUntil([&] { return delivered == 5; }, 10s));
    EXPECT_TRUE(executor.runUntil([&] { return flag.load(); }, 10s));
    worker.join();
    EXPECT_FALSE(executor.runUntil([] { return false; }, 20ms));
}

TEST(LoopMainExecutor, RunsWorkFromOtherThreadsAndStopsAfterTheWorkPostedBeforeTheStop) {
    LoopMainExecutor executor;
    std::vector<std::pair<int, int>> seen;
    std::atomic<int> offMain{0};
    std::thread poster([&] {
        postFromSeveralThreads(executor, seen, offMain);
        executor.stop();
        executor.post([&] { seen.emplace_back(-1, -1); });
    });
    EXPECT_TRUE(executor.runFor(10s));
    poster.join();
    EXPECT_EQ(offMain.load(), 0);
    EXPECT_TRUE(testing::keepsEachProducersOrder(seen, kProducers, kItems));  // not the item posted after stop()
    EXPECT_FALSE(executor.runFor(20ms)) << "no stop is pending";
    EXPECT_EQ(seen.back(), std::make_pair(-1, -1));
}

// A failure on the main thread ends the loop instead of leaving it waiting for a stop that the
// failed work would have asked for.
TEST(LoopMainExecutor, AnItemThatThrowsEndsTheRunWithItsExceptionAndTheRestWaitsForTheNextRun) {
    LoopMainExecutor executor;
    std::vector<int> ran;
    executor.post([&] { ran.push_back(1); });
    executor.post([] { throw std::runtime_error("failed"); });
    executor.post([&] {
        ran.push_back(2);
        executor.stop();
    });
    EXPECT_THROW(executor.run(), std::runtime_error);
    EXPECT_EQ(ran, std::vector<int>{1});
    EXPECT_TRUE(executor.runFor(10s));
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));

    // A caller that swallows exceptions (a publisher notifying a subscriber) hands them to the loop,
    // where the failure comes before the stop the item asked for.
    auto observe = executor.failingTheLoop([](int value) {
        if (value < 0) throw std::invalid_argument("negative");
    });
    executor.post([&] {
        observe(-1);
        ran.push_back(3);
        executor.stop();
    });
    EXPECT_THROW(executor.run(), std::invalid_argument);
    EXPECT_EQ(ran.back(), 3);
    EXPECT_TRUE(executor.runFor(10s));
}

}  // namespace
}  // namespace vantorix
