#include "concurrency/WeakOwner.h"

#include "concurrency/SerialQueue.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

namespace vantorix {
namespace {

struct Counter {
    int calls = 0;
};

TEST(WeakOwner, CallsTheActionWhileTheOwnerLivesAndNothingAfterwards) {
    SerialQueue queue("com.vantorix.test.weak", QualityOfService::utility);
    auto owner = std::make_shared<Counter>();
    auto addTo = weakly(owner, [](Counter& c, int n) { c.calls += n; });
    auto total = weakly(owner, [](Counter& c) { return c.calls; });
    addTo(2);
    EXPECT_EQ(total(), std::optional<int>(2));

    std::promise<void> release;
    queue.async([released = release.get_future().share()] { released.wait(); });
    queue.async([addTo]() mutable { addTo(1); });  // runs after the owner is gone
    std::weak_ptr<Counter> watch = owner;
    owner.reset();
    EXPECT_TRUE(watch.expired()) << "the closures must not keep their owner alive";
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
