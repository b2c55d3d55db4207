#include "concurrency/Task.h"

#include "WaitFor.h"
#include "log/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;

// An hour's sleep is cut short by cancel(), for every token, once; a cancelled token no longer sleeps.
TEST(Cancellation, CancelReachesEveryTokenAndWakesEverySleeper) {
    CancellationSource source;
    std::atomic<int> woken{0};
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 3; ++i) {
        sleepers.emplace_back([&, token = source.token()] { woken += token.sleepFor(1h) ? 0 : 1; });
    }
    std::this_thread::sleep_for(5ms);  // most likely asleep by now; a lost wake-up hangs the join
    source.cancel();
    source.cancel();
    for (auto& t : sleepers) t.join();
    EXPECT_EQ(woken.load(), 3);
    EXPECT_FALSE(source.token().sleepFor(1h));
    EXPECT_TRUE(CancellationToken().sleepFor(1ms)) << "a default token is never cancelled";
}

TEST(Task, DroppingOrReplacingTheHandleCancelsWithoutWaiting) {
    struct Shared {
        std::atomic<int> cancelsSeen{0};
        std::atomic<bool> mayFinish{false};
        std::atomic<int> finished{0};
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

TEST(Task, AFailingBodyIsLoggedAndTheTaskFinishes) {
    log::Capture capture;
    Task task("com.vantorix.test.failing", QualityOfService::background,
              [](const CancellationToken&) { throw std::runtime_error("smartctl vanished"); });
    EXPECT_TRUE(task.waitFor(10s));
    EXPECT_EQ(capture.messages("Concurrency", log::Level::error).size(), 1U);
}

}  // namespace
}  // namespace vantorix
