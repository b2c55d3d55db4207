#include "charts/ChartExportSupport.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>

#include "charts/SampleFixtures.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

using testing::samplesBy;
using testing::samplesOf;
using testing::ScopedEnvironment;
using testing::ScopedLanguage;
using Support = ChartExportSupport;
using Tick = Support::AxisTick;

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
constexpr const char* kHeader = "timestamp,elapsed_seconds,read_bytes,write_bytes,read_bytes_per_sec,write_bytes_per_sec";

TEST(ChartExportSupport, CsvHasAHeaderAndOneLinePerSample) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> bytes;
        std::int64_t intervalMs;
        std::vector<std::string> lines;  // after the header, without timestamps
    };
    const Case cases[] = {
        {"no samples: the header alone", {}, 1000, {}},
        {"three samples at 100 ms", {{1, 2}, {30, 0}, {0, 5}}, 100,
         {"0,1,2,10,20", "0.1,30,0,300,0", "0.2,0,5,0,50"}},
        {"per second at 1000 ms is the count itself", {{1'234'567, 0}}, 1000, {"0,1234567,0,1234567,0"}},
        {"six fraction digits at most", {{1'234'567, 1}, {3, 0}}, 3,
         {"0,1234567,1,411522333.333333,333.333333", "0.003,3,0,1000,0"}},
        {"no interval: elapsed and speeds 0", {{8, 9}, {8, 9}}, 0, {"0,8,9,0,0", "0,8,9,0,0"}},
        {"the largest counts", {{kMax, 0}}, 1, {"0,18446744073709551615,0,18446744073709552000000,0"}},
    };
    const ScopedEnvironment zone{{"TZ", "Asia/Shanghai"}};  // timestamps are in UTC all the same
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string csv = Support::csvText(samplesOf(c.bytes), c.intervalMs);
        if (!c.lines.empty()) {
            EXPECT_EQ(csv.substr(csv.find('\n') + 1, 25), "2025-03-01T08:15:30.125Z,");
        }
        std::istringstream in(csv);
        std::string line;
        std::getline(in, line);
        EXPECT_EQ(line, kHeader);
        std::vector<std::string> rows;
        while (std::getline(in, line)) rows.push_back(line.substr(line.find(',') + 1));
        EXPECT_EQ(rows, c.lines);
        EXPECT_NE(csv.back(), '\n');
    }
}

// The fast path must write exactly what the ICU formatter writes.
TEST(ChartExportSupport, CsvNumbersMatchIcusPosixFormatting) {
    const auto icu = icu::number::NumberFormatter::withLocale(icu::Locale("en_US_POSIX"))
                         .precision(icu::number::Precision::minMaxFraction(0, 6))
                         .grouping(UNUM_GROUPING_OFF);
    const auto expected = [&icu](double value) {
        UErrorCode status = U_ZERO_ERROR;
        std::string out;
        icu.formatDouble(value, status).toString(status).toUTF8String(out);
        return out;
    };
    std::vector<double> values{0, 0.1, 0.3, 2.5, 1e-7, 0.0000005, 123456.1234565, 4503599627370495.5,
                               9007199254740993.0, 1e21, 1.8446744073709552e22, 1.0 / 3};
    std::mt19937_64 random(6);
    for (int i = 0; i < 20'000; ++i) {
        const std::uint64_t count = random() >> (random() % 64);
        const std::int64_t interval = static_cast<std::int64_t>(random() % 1500) + 1;
        values.push_back(static_cast<double>(count) * (1000.0 / static_cast<double>(interval)));
        values.push_back(static_cast<double>(count % 60'000) * static_cast<double>(interval) / 1000.0);
    }
    for (const double value : values) ASSERT_EQ(Support::csvNumberText(value), expected(value)) << value;
}

TEST(ChartExportSupport, ReducesToAtMostThePointLimitKeepingEndsAndPeaks) {
    const auto plot = Support::plotRect(3840, 2160);
    EXPECT_EQ(plot, (Support::Rect{220, 240, 3460, 1760}));
    EXPECT_EQ(Support::pointLimit(plot), 3460);
    EXPECT_EQ(Support::pointLimit(Support::plotRect(600, 600)), 512);

    // 10,000 samples: chunk ⌈9998 ÷ 3458⌉ = 3, sample 0, 3,333 bins, sample 9,999.
    const auto many = samplesBy(10'000, [](std::size_t i) { return i == 5'000 ? 9'000 : i % 7; },
                                [](std::size_t i) { return i; });
    const auto points = Support::reducedPoints(many, 1000, 3460);
    ASSERT_EQ(points.size(), 3'335u);
    EXPECT_EQ(points[0], (Support::DownsampledPoint{0, 0, 0}));
    EXPECT_EQ(points[1], (Support::DownsampledPoint{2, 3, 3}));  // 1..<4
    EXPECT_EQ(points[3'333], (Support::DownsampledPoint{9'998, 2, 9'998}));  // 9,997..<9,999
    EXPECT_EQ(points[3'334], (Support::DownsampledPoint{9'999, 9'999 % 7, 9'999}));
    const auto peak = std::max_element(points.begin(), points.end(),
                                       [](const auto& a, const auto& b) { return a.readSpeed < b.readSpeed; });
    EXPECT_EQ(peak->readSpeed, 9'000);

    struct Case {
        const char* name;
        std::size_t samples;
        std::int64_t limit;
        std::size_t points;
    };
    for (const Case& c : {Case{"300 samples fit", 300, 3460, 300}, Case{"a limit below 3 keeps all", 50, 2, 50},
                          Case{"no samples", 0, 512, 0}, Case{"exactly the limit", 512, 512, 512},
                          Case{"one over: bins of 2", 513, 512, 258}}) {
        SCOPED_TRACE(c.name);
        const auto reduced = Support::reducedPoints(samplesBy(c.samples, [](std::size_t i) { return i; },
                                                              [](std::size_t) { return 0; }),
                                                    100, c.limit);
        ASSERT_EQ(reduced.size(), c.points);
        if (!reduced.empty()) {
            EXPECT_EQ(reduced.back().index, static_cast<std::int64_t>(c.samples) - 1);
        }
    }
}

TEST(ChartExportSupport, AxisTicksRunFromZeroToTheTop) {
    const auto speeds = [](double read, double write) {
        return std::vector<Support::DownsampledPoint>{{0, read, write}};
    };
    struct Case {
        const char* name;
        std::vector<Tick> ticks;
        std::vector<Tick> expected;
    };
    const Case cases[] = {
        {"all zero: up to 1 B/s", Support::throughputTicks(speeds(0, 0)),
         {{0, 0}, {0.2, 0.2}, {0.4, 0.4}, {0.6000000000000001, 0.6000000000000001}, {0.8, 0.8}, {1, 1}}},
        {"300 MB/s in steps of 50 MB/s", Support::throughputTicks(speeds(1, 300e6)),
         {{0, 0}, {50e6, 1 / 6.0}, {100e6, 1 / 3.0}, {150e6, 0.5}, {200e6, 2 / 3.0}, {250e6, 250 / 300.0}, {300e6, 1}}},
        {"an uneven top ends the last step early", Support::throughputTicks(speeds(130, 2)),
         {{0, 0}, {20, 20 / 130.0}, {40, 40 / 130.0}, {60, 60 / 130.0}, {80, 80 / 130.0}, {100, 100 / 130.0},
          {120, 120 / 130.0}, {130, 1}}},
        {"time: one sample", Support::timeTicks(1, 1000), {{0, 0}}},
        {"time: 256 samples at 1 s", Support::timeTicks(256, 1000),
         {{0, 0}, {50e3, 50 / 255.0}, {100e3, 100 / 255.0}, {150e3, 150 / 255.0}, {200e3, 200 / 255.0},
          {250e3, 250 / 255.0}, {255e3, 1}}},
        {"time: two samples at 1 ms", Support::timeTicks(2, 1),
         {{0, 0}, {0.2, 0.2}, {0.4, 0.4}, {0.6000000000000001, 0.6000000000000001}, {0.8, 0.8}, {1, 1}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(c.ticks.size(), c.expected.size());
        for (std::size_t i = 0; i < c.ticks.size(); ++i) {
            EXPECT_DOUBLE_EQ(c.ticks[i].value, c.expected[i].value) << i;
            EXPECT_DOUBLE_EQ(c.ticks[i].position, c.expected[i].position) << i;
        }
    }
}

TEST(ChartExportSupport, TotalsSaturateAndAverageOverTheSamplingTime) {
    const auto plain = Support::totals(samplesOf({{100, 50}, {300, 50}, {0, 100}}), 500);
    EXPECT_EQ(plain.readBytes, 400u);
    EXPECT_EQ(plain.writeBytes, 200u);
    EXPECT_EQ(plain.samplingTimeMs, 1000);
    EXPECT_EQ(plain.averageSpeed, 600);

    const auto huge = Support::totals(samplesOf({{kMax, kMax}, {1, 1}}), 1000);
    EXPECT_EQ(huge.readBytes, kMax);
    EXPECT_EQ(huge.writeBytes, kMax);
    EXPECT_EQ(huge.averageSpeed, static_cast<double>(kMax));

    for (const auto& [samples, interval] : {std::pair{samplesOf({{5, 5}}), std::int64_t{1000}},
                                            std::pair{samplesOf({{5, 5}, {5, 5}}), std::int64_t{0}}}) {
        const auto none = Support::totals(samples, interval);
        EXPECT_EQ(none.samplingTimeMs, 0);
        EXPECT_EQ(none.averageSpeed, 0);
    }
}

TEST(ChartExportSupport, TextsOfThePictureInBothLanguages) {
    const auto summary = Support::totals(samplesBy(3'601, [](std::size_t) { return 1'250'000; },
                                                   [](std::size_t i) { return i == 0 ? 9'223'372'036'854'775'807 : 0; }),
                                         1000);
    struct Case {
        const char* lang;
        std::vector<std::string> durations;  // of -3, 0.4, 999.6, 1500, 90000, 7,200,000 and 4,500,000 ms
        std::array<std::string, 4> summary;
        std::string legend;
    };
    const Case cases[] = {
        {"en_US.UTF-8",
         {"0 ms", "0 ms", "1000 ms", "1.5 s", "1.5 min", "2 h", "1.25 h"},
         {"Total Sampling Time: 1 h", "Average Throughput: 2,562.05 TB/s", "Cumulative Read: 4.5 GB",
          "Cumulative Write: 9,223.37 PB"},
         "Green: Read|Orange: Write|Waiting for data…"},
        {"zh_CN.UTF-8",
         {"0 毫秒", "0 毫秒", "1000 毫秒", "1.5 秒", "1.5 分钟", "2 小时", "1.25 小时"},
         {"总采样时间：1 小时", "平均速度：2,562.05 TB/秒", "累计读取：4.5 GB", "累计写入：9,223.37 PB"},
         "绿色：读取|橙色：写入|等待数据…"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lang);
        const ScopedLanguage language(c.lang);
        {
            // Durations stay in en_US_POSIX whatever the number locale says.
            const ScopedEnvironment numbers{{"LC_NUMERIC", "de_DE.UTF-8"}};
            std::vector<std::string> durations;
            for (const double ms : {-3.0, 0.4, 999.6, 1500.0, 90000.0, 7'200'000.0, 4'500'000.0})
                durations.push_back(Support::durationText(ms));
            EXPECT_EQ(durations, c.durations);
        }
        EXPECT_EQ(Support::summaryLines(summary), c.summary);
        EXPECT_EQ(Support::readLegendText() + "|" + Support::writeLegendText() + "|" + Support::waitingText(), c.legend);
    }
}

}  // namespace
}  // namespace vantorix
