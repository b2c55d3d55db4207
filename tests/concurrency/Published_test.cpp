#include "concurrency/Published.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vantorix {
namespace {

TEST(Published, SetAlwaysNotifiesAndSetIfChangedOnlyOnAChange) {
    const struct { bool onlyChanges; std::vector<int> writes, told; } cases[] = {
        {false, {1, 1, 2, 2, 0}, {1, 1, 2, 2, 0}},
        {true, {1, 1, 2, 2, 0}, {1, 2, 0}},
        {true, {0}, {}},
    };
    for (const auto& c : cases) {
        Published<int> value;
        std::vector<int> told;
        const Subscription s = value.subscribe([&](const int& v) { told.push_back(v); });
        for (const int w : c.writes) {
            if (c.onlyChanges) {
                value.setIfChanged(w);
            } else {
                value.set(w);
            }
            EXPECT_EQ(value.get(), w);
        }
        EXPECT_EQ(told, c.told) << (c.onlyChanges ? "setIfChanged" : "set");
    }
}

TEST(Published, SubscribersAreToldInOrderAndMayComeAndGoDuringANotification) {
    Published<int> value;
    std::vector<std::string> log;
    Subscription a;
    Subscription b;
    Subscription c;
    Subscription late;
    a = value.subscribe([&](const int& v) {
        log.push_back("a" + std::to_string(v));
        if (v == 1) {
            a.cancel();  // itself
            c.cancel();  // one that has not been told yet
            late = value.subscribe([&](const int& w) { log.push_back("late" + std::to_string(w)); });
        }
    });
    b = value.subscribe([&](const int& v) { log.push_back("b" + std::to_string(v) + "/" + std::to_string(value.get())); });
    c = value.subscribe([&](const int& v) { log.push_back("c" + std::to_string(v)); });
    value.set(1);
    value.update([](int& v) { v = 2; });
    // In subscription order, after the value changed.
    EXPECT_EQ(log, (std::vector<std::string>{"a1", "b1/1", "b2/2", "late2"}));
    EXPECT_EQ(value.subscriberCount(), 2U);
}

TEST(Published, AChangeDuringANotificationRestartsItWithTheNewValue) {
    Published<int> value;
    std::vector<std::string> log;
    const Subscription first = value.subscribe([&](const int& v) {
        log.push_back("first" + std::to_string(v));
        if (v == 1) value.set(2);
    });
    const Subscription second = value.subscribe([&](const int& v) { log.push_back("second" + std::to_string(v)); });
    value.set(1);
    // `second` is never told 1 after 2: the round for 1 ended when 2 was set.
    EXPECT_EQ(log, (std::vector<std::string>{"first1", "first2", "second2"}));
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
        EXPECT_EQ(told, 1);
        outer = value.subscribe([&](const int&) { told += 100; });  // assigning over one ends it
        value.set(2);
        EXPECT_EQ(told, 101);
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

}  // namespace
}  // namespace vantorix
