#include "text/Formats.h"

#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace vantorix::text {
namespace {

// Lazily built formatters, first used from several threads at once (this test runs first and its
// locale is used by no other test). Meant for AddressSanitizer and ThreadSanitizer.
TEST(ConcurrentFormatting, ThreadsFormattingAtOnceAgreeWithOneThread) {
    const testing::ScopedEnvironment environment{{"LANGUAGE", std::nullopt}, {"LC_ALL", "nb_NO.UTF-8"}};
    constexpr std::size_t kThreads = 8;
    constexpr int kRounds = 200;
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1'700'000'000'123)};
    const auto formatAll = [&](int round) {
        return std::vector<std::string>{
            byteCountText(2'500'000'000 + static_cast<std::uint64_t>(round), ByteUnits::gigabytes),
            speedText(1.5e9 + round), operationRateText(12.34), totalBytesText(~0ULL), capacityText(500'000'000),
            durationText(1'500 + round, true), percentText(0.125, 1), posixDecimalText(2.5),
            upperCasedForCurrentLocale("ext4"), tooltipTimeText(time), fileNameTimestamp(time, true),
        };
    };

    std::vector<std::vector<std::vector<std::string>>> results(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int round = 0; round < kRounds; ++round) results[t].push_back(formatAll(round));
        });
    }
    for (auto& thread : threads) thread.join();

    for (int round = 0; round < kRounds; ++round) {
        const auto expected = formatAll(round);
        for (std::size_t t = 0; t < kThreads; ++t) {
            ASSERT_EQ(results[t][static_cast<std::size_t>(round)], expected) << "thread " << t << " round " << round;
        }
    }
    EXPECT_EQ(byteCountText(2'500'000'000, ByteUnits::gigabytes), "2,5 GB");  // the Norwegian formatter, no fallback
    EXPECT_EQ(fileNameTimestamp(time, true), "20231114-221320");
}

}  // namespace
}  // namespace vantorix::text
