#include "concurrency/Task.h"

#include "WaitFor.h"
#include "log/Log.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;

TEST(Cancellation, CancelReachesEveryTokenAndWakesEverySleeper) {
    CancellationSource source;
    std::atomic<int> woken{0};
    std::vector<std::thread> sleepers;
    for (int i = 0; i < 3; ++i) {
        sleepers.emplace_back([&, token = source.token()] {
            if (!token.sleepFor(1h)) ++woken;
        });
    }
    std::this_thread::sleep_for(5ms);
    source.cancel();
    source.cancel();
    for (auto& t : sleepers) t.join();  // an hour's wait if a wake-up is lost
    EXPECT_EQ(woken.load(), 3);
    EXPECT_FALSE(source.token().sleepFor(1h)) << "a cancelled token does not sleep";
    EXPECT_TRUE(CancellationToken().sleepFor(1ms)) << "a default token is never cancelled";
}

TEST(Task, RunsItsBodyOnANamedThreadUntilCancelled) {
    std::atomic<int> rounds{0};
    std::string threadName;
    Task task("com.vantorix.test.smartRefresh", QualityOfService::utility, [&](const CancellationToken& token) {
        std::array<char, 16> name{};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        threadName = name.data();
        while (!token.isCancelled()) {
            ++rounds;
            token.sleepFor(1h);
        }
    });
    ASSERT_TRUE(waitFor([&] { return rounds >= 1; }));
    EXPECT_FALSE(task.isFinished());
    task.cancel();
    task.join();
    EXPECT_TRUE(task.isFinished());
    EXPECT_EQ(rounds.load(), 1);
    EXPECT_EQ(threadName, "smartRefresh");
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
    const auto errors = capture.messages("Concurrency", log::Level::error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("smartctl vanished"), std::string::npos);
}

}  // namespace
}  // namespace vantorix
