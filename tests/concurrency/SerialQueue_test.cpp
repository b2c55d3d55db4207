#include "concurrency/SerialQueue.h"

#include "WaitFor.h"
#include "log/Log.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vantorix {
namespace {

TEST(SerialQueue, RunsItemsOneAtATimeKeepingEachProducersOrder) {
    constexpr int kProducers = 4;
    constexpr int kItems = 2000;
    SerialQueue queue("com.vantorix.test.order", QualityOfService::utility);
    std::vector<std::pair<int, int>> seen;  // touched on the queue only
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
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

    const auto errors = capture.messages("Concurrency", log::Level::error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("com.vantorix.test.sync"), std::string::npos);
    EXPECT_NE(errors[0].find("disk on fire"), std::string::npos);
}

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
}

TEST(SerialQueue, ReleasedOnItsOwnThreadFinishesTheRemainingWork) {
    auto queue = std::make_shared<SerialQueue>("com.vantorix.test.self", QualityOfService::utility);
    std::atomic<bool> laterItemRan{false};
    std::promise<void> go;
    // The first item holds the last reference and drops it on the queue's own thread.
    queue->async([owner = queue, started = go.get_future().share()]() mutable {
        started.wait();
        owner.reset();
    });
    queue->async([&] { laterItemRan = true; });
    queue.reset();
    go.set_value();
    EXPECT_TRUE(testing::waitFor([&] { return laterItemRan.load(); }));
}

TEST(SerialQueue, ThreadCarriesTheLabelsNameAndTheNiceValueOfItsQuality) {
    SerialQueue queue("com.vantorix.monitor.aggregation", QualityOfService::background);
    const auto [name, nice] = queue.sync([] {
        std::array<char, 16> buffer{};
        pthread_getname_np(pthread_self(), buffer.data(), buffer.size());
        return std::make_pair(std::string(buffer.data()), ::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid())));
    });
    EXPECT_EQ(name, "aggregation");
    // Lowering a thread's priority is always allowed; a process that already runs nicer keeps its value.
    EXPECT_GE(nice, niceValue(QualityOfService::background));
}

}  // namespace
}  // namespace vantorix
