#include "concurrency/SerialQueue.h"
#include "concurrency/WeakOwner.h"

#include "WaitFor.h"
#include "log/Log.h"

#include <gtest/gtest.h>

#include <atomic>
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

    EXPECT_EQ(capture.messages("Concurrency", log::Level::error).size(), 1U);
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

// Closures made with weakly() act while their owner lives, do nothing afterwards and never keep it alive.
TEST(WeakOwner, CallsTheActionWhileTheOwnerLivesAndNothingAfterwards) {
    SerialQueue queue("com.vantorix.test.weak", QualityOfService::utility);
    auto owner = std::make_shared<int>(0);
    auto addTo = weakly(owner, [](int& calls, int n) { calls += n; });
    auto total = weakly(owner, [](int& calls) { return calls; });
    addTo(2);
    EXPECT_EQ(total(), std::optional<int>(2));

    std::promise<void> release;
    queue.async([released = release.get_future().share()] { released.wait(); });
    queue.async([addTo]() mutable { addTo(1); });  // runs after the owner is gone
    const std::weak_ptr<int> watch = owner;
    owner.reset();
    EXPECT_TRUE(watch.expired());
    release.set_value();
    queue.sync([] {});  // AddressSanitizer catches a call on the dead owner
    EXPECT_EQ(total(), std::nullopt);
}

class Base : public std::enable_shared_from_this<Base> {
public:
    virtual ~Base() = default;
};

class Derived : public Base {
public:
    Derived() : fromConstructor(weakly(this, [](Derived& d) { d.name = "constructor"; })) {}
    std::function<void()> later() {
        return weakly(this, [](Derived& d) { d.name = "later"; });
    }
    std::string name;
    std::function<void()> fromConstructor;
};

TEST(WeakOwner, WeaklyThisWorksThroughABaseAndNeverFromTheConstructor) {
    auto owner = std::make_shared<Derived>();
    owner->fromConstructor();  // made before a shared_ptr owned the object
    EXPECT_EQ(owner->name, "");
    owner->later()();
    EXPECT_EQ(owner->name, "later");
}

}  // namespace
}  // namespace vantorix
