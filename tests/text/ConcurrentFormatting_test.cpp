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
    constexpr int kRounds = 200;
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1'700'000'000'123)};
    const auto formatAll = [&](int round) {
        return byteCountText(2'500'000'000 + static_cast<std::uint64_t>(round), ByteUnits::gigabytes) + "|" +
               speedText(1.5e9 + round) + operationRateText(12.34) + totalBytesText(~0ULL) +
               capacityText(500'000'000) + durationText(1'500 + round, true) + percentText(0.125, 1) +
               posixDecimalText(2.5) + upperCasedForCurrentLocale("ext4") + tooltipTimeText(time) +
               fileNameTimestamp(time, true);
    };
    std::vector<std::vector<std::string>> results(8);
    std::latch start(static_cast<std::ptrdiff_t>(results.size()));
    std::vector<std::thread> threads;
    for (auto& result : results) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int round = 0; round < kRounds; ++round) result.push_back(formatAll(round));
        });
    }
    for (auto& thread : threads) thread.join();
    for (int round = 0; round < kRounds; ++round) {
        for (const auto& result : results) ASSERT_EQ(result[static_cast<std::size_t>(round)], formatAll(round));
    }
    EXPECT_EQ(formatAll(0).substr(0, 7), "2,5 GB|");  // the Norwegian formatter, no fallback
}

}  // namespace
}  // namespace vantorix::text
