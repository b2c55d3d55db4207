#include "concurrency/Published.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vantorix {
namespace {

using Log = std::vector<std::string>;

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

}  // namespace
}  // namespace vantorix
