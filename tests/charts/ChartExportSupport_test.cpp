#include "charts/ChartExportSupport.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>

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
using PNGResult = Result<std::vector<std::uint8_t>, ChartDataExportError>;
namespace fs = std::filesystem;

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
        if (!c.lines.empty()) { EXPECT_EQ(csv.substr(csv.find('\n') + 1, 25), "2025-03-01T08:15:30.125Z,"); }
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
    EXPECT_EQ(Support::pointLimit(Support::plotRect(3840, 2160)), 3460);
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
    EXPECT_EQ(std::max_element(points.begin(), points.end(), [](auto& a, auto& b) { return a.readSpeed < b.readSpeed; })
                  ->readSpeed,
              9'000);

    // Samples, limit, points: a limit below 3 keeps all; one over the limit makes bins of 2.
    for (const auto& [samples, limit, count] : std::vector<std::tuple<std::size_t, std::int64_t, std::size_t>>{
             {300, 3460, 300}, {50, 2, 50}, {0, 512, 0}, {512, 512, 512}, {513, 512, 258}}) {
        const auto ramp = samplesBy(samples, [](std::size_t i) { return i; }, [](std::size_t) { return 0; });
        const auto reduced = Support::reducedPoints(ramp, 100, limit);
        ASSERT_EQ(reduced.size(), count) << samples;
        if (count > 0) { EXPECT_EQ(reduced.back().index, static_cast<std::int64_t>(samples) - 1); }
    }
}

// Evenly spaced from 0 by `step`, the last one at the top whatever the step.
TEST(ChartExportSupport, AxisTicksRunFromZeroToTheTop) {
    const auto speeds = [](double read, double write) {
        return std::vector<Support::DownsampledPoint>{{0, read, write}};
    };
    struct Case { const char* name; std::vector<Tick> ticks; double top, step; };
    const Case cases[] = {
        {"all zero: up to 1 B/s", Support::throughputTicks(speeds(0, 0)), 1, 0.2},
        {"300 MB/s in steps of 50 MB/s", Support::throughputTicks(speeds(1, 300e6)), 300e6, 50e6},
        {"an uneven top ends the last step early", Support::throughputTicks(speeds(130, 2)), 130, 20},
        {"time: one sample", Support::timeTicks(1, 1000), 0, 0},
        {"time: 256 samples at 1 s", Support::timeTicks(256, 1000), 255e3, 50e3},
        {"time: two samples at 1 ms", Support::timeTicks(2, 1), 1, 0.2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Tick> expected{{0, 0}};
        for (int i = 1; c.top > 0 && i * c.step < c.top; ++i) expected.push_back({i * c.step, i * c.step / c.top});
        if (c.top > 0) expected.push_back({c.top, 1});
        ASSERT_EQ(c.ticks.size(), expected.size());
        for (std::size_t i = 0; i < c.ticks.size(); ++i) {
            EXPECT_DOUBLE_EQ(c.ticks[i].value, expected[i].value) << i;
            EXPECT_DOUBLE_EQ(c.ticks[i].position, expected[i].position) << i;
        }
    }
}

TEST(ChartExportSupport, TotalsSaturateAndAverageOverTheSamplingTime) {
    struct Case { SampleWindow samples; std::int64_t intervalMs; Support::Totals totals; };
    const Case cases[] = {
        {samplesOf({{100, 50}, {300, 50}, {0, 100}}), 500, {400, 200, 1000, 600}},
        {samplesOf({{kMax, kMax}, {1, 1}}), 1000, {kMax, kMax, 1000, static_cast<double>(kMax)}},
        {samplesOf({{5, 5}}), 1000, {5, 5, 0, 0}},
        {samplesOf({{5, 5}, {5, 5}}), 0, {10, 10, 0, 0}},
    };
    for (const Case& c : cases) {
        const auto totals = Support::totals(c.samples, c.intervalMs);
        EXPECT_EQ(totals.readBytes, c.totals.readBytes);
        EXPECT_EQ(totals.writeBytes, c.totals.writeBytes);
        EXPECT_EQ(totals.samplingTimeMs, c.totals.samplingTimeMs);
        EXPECT_EQ(totals.averageSpeed, c.totals.averageSpeed);
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
    };
    const Case cases[] = {
        {"en_US.UTF-8",
         {"0 ms", "0 ms", "1000 ms", "1.5 s", "1.5 min", "2 h", "1.25 h"},
         {"Total Sampling Time: 1 h", "Average Throughput: 2,562.05 TB/s", "Cumulative Read: 4.5 GB",
          "Cumulative Write: 9,223.37 PB"}},
        {"zh_CN.UTF-8",
         {"0 毫秒", "0 毫秒", "1000 毫秒", "1.5 秒", "1.5 分钟", "2 小时", "1.25 小时"},
         {"总采样时间：1 小时", "平均速度：2,562.05 TB/秒", "累计读取：4.5 GB", "累计写入：9,223.37 PB"}},
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
    }
}

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class ChartExportFlow : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("vantorix-export-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // A renderer that hands out fixed bytes and counts its calls.
    Support::PNGRenderer renderer(std::optional<ChartDataExportError> failure = std::nullopt) {
        return [this, failure](const SampleWindow& samples, std::int64_t intervalMs) -> PNGResult {
            ++renders_;
            EXPECT_EQ(intervalMs, 100);
            if (failure) return Failure{*failure};
            return std::vector<std::uint8_t>{0x89, 'P', 'N', 'G', static_cast<std::uint8_t>(samples.size())};
        };
    }

    fs::path dir_;
    int renders_ = 0;
    const SampleWindow two_ = samplesOf({{1, 2}, {3, 4}});
    const ScopedLanguage english_{"en_US.UTF-8"};
};

TEST_F(ChartExportFlow, NamesThePngAfterTheCsv) {
    const std::pair<std::string, std::string> cases[] = {
        {"run.csv", "run.png"}, {"run", "run.png"}, {"/data/v1.2/run", "/data/v1.2/run.png"},
        {"/tmp/a.b.csv", "/tmp/a.b.png"}, {"/tmp/.csv", "/tmp/.csv.png"},
    };
    for (const auto& [csv, png] : cases) EXPECT_EQ(Support::pngPath(csv), png) << csv;

    const ScopedEnvironment zone{{"TZ", "Asia/Shanghai"}};
    const auto time = std::chrono::sys_days(std::chrono::year(2025) / 3 / 1) + std::chrono::hours(20);
    EXPECT_EQ(Support::suggestedFileName(time), "Vantorix-20250302-040000.csv");
}

// An older picture of the same name is replaced; with fewer than two samples nothing happens.
TEST_F(ChartExportFlow, WritesBothFilesAndSaysWhere) {
    const std::string csv = (dir_ / "run.csv").string();
    const std::string png = (dir_ / "run.png").string();
    std::ofstream(png) << "an older picture that is replaced";
    EXPECT_EQ(Support::exportChart(two_, 100, csv, renderer()),
              (Support::Outcome{true, "CSV saved to: " + csv + "\nPNG saved to: " + png}));
    EXPECT_EQ(contents(csv), Support::csvText(two_, 100));
    EXPECT_EQ(contents(png), std::string("\x89PNG\x02", 5));

    EXPECT_EQ(Support::exportChart(samplesOf({{1, 1}}), 100, (dir_ / "one.csv").string(), renderer()), std::nullopt);
    EXPECT_EQ(renders_, 1);
    EXPECT_FALSE(fs::exists(dir_ / "one.csv"));
}

TEST_F(ChartExportFlow, AFailureStopsTheFlowWhereItHappens) {
    // The picture is made first: when that fails, no file is written.
    const std::string csv = (dir_ / "run.csv").string();
    EXPECT_EQ(Support::exportChart(two_, 100, csv, renderer(ChartDataExportError::pngEncodingFailed())),
              (Support::Outcome{false, "Export failed: Failed to encode the chart as a PNG image."}));
    EXPECT_FALSE(fs::exists(csv));

    // The CSV cannot be written: the PNG is not written either.
    const std::string missing = (dir_ / "no-such-folder" / "run.csv").string();
    EXPECT_EQ(Support::exportChart(two_, 100, missing, renderer()),
              (Support::Outcome{false, "Export failed: Could not write the file “" + missing + "”: No such file or directory"}));

    // The PNG cannot be written (a folder has its name): the CSV stays.
    fs::create_directory(dir_ / "blocked.png");
    const std::string blocked = (dir_ / "blocked.csv").string();
    const ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(Support::exportChart(two_, 100, blocked, renderer()),
              (Support::Outcome{false, "导出失败：无法写入文件“" + (dir_ / "blocked.png").string() + "”：Is a directory"}));
    EXPECT_EQ(contents(blocked), Support::csvText(two_, 100));
}

}  // namespace
}  // namespace vantorix
