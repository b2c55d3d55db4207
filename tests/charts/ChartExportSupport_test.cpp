#include "charts/ChartExportSupport.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unicode/timezone.h>

#include <csignal>
#include <filesystem>
#include <limits>
#include <set>
#include <sstream>

#include "charts/LatencyExport.h"
#include "charts/SampleFixtures.h"
#include "services/ServiceTestSupport.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

using testing::fileContents;
using testing::samplesBy;
using testing::samplesOf;
using testing::ScopedEnvironment;
using testing::ScopedLanguage;
using testing::TemporaryFolder;
using testing::writeFile;
using Support = ChartExportSupport;
using PNGResult = Result<std::vector<std::uint8_t>, ChartDataExportError>;
namespace fs = std::filesystem;

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
constexpr const char* kHeader =
    "timestamp,elapsed_seconds,read_bytes,write_bytes,read_bytes_per_sec,write_bytes_per_sec";

TEST(ChartExportSupport, CsvHasAHeaderAndOneLinePerSample) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> bytes;
        std::int64_t intervalMs;
        std::vector<std::string> lines;  // after the header, without timestamps
    };
    const Case cases[] = {
        {"no samples: the header alone", {}, 1000, {}},
        {"three samples at 100 ms", {{1, 2}, {30, 0}, {0, 5}}, 100, {"0,1,2,10,20", "0.1,30,0,300,0", "0.2,0,5,0,50"}},
        {"per second at 1000 ms is the count itself", {{1'234'567, 0}}, 1000, {"0,1234567,0,1234567,0"}},
        {"six fraction digits at most",
         {{1'234'567, 1}, {3, 0}},
         3,
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

TEST(ChartExportSupport, ReducesToAtMostThePointLimitKeepingEndsAndPeaks) {
    EXPECT_EQ(Support::pointLimit(Support::plotRect(3840, 2160)), 3460);
    EXPECT_EQ(Support::pointLimit(Support::plotRect(600, 600)), 512);

    // 10,000 samples: chunk ⌈9998 ÷ 3458⌉ = 3, sample 0, 3,333 bins, sample 9,999.
    const auto many = samplesBy(
        10'000, [](std::size_t i) { return i == 5'000 ? 9'000 : i % 7; }, [](std::size_t i) { return i; });
    const auto points = Support::reducedPoints(many, 1000, 3460);
    ASSERT_EQ(points.size(), 3'335u);
    EXPECT_EQ(points[0], (Support::DownsampledPoint{0, 0, 0}));
    EXPECT_EQ(points[1], (Support::DownsampledPoint{2, 3, 3}));              // 1..<4
    EXPECT_EQ(points[3'333], (Support::DownsampledPoint{9'998, 2, 9'998}));  // 9,997..<9,999
    EXPECT_EQ(points[3'334], (Support::DownsampledPoint{9'999, 9'999 % 7, 9'999}));
    EXPECT_EQ(std::max_element(points.begin(), points.end(), [](auto& a, auto& b) { return a.readSpeed < b.readSpeed; })
                  ->readSpeed,
              9'000);

    // Samples, limit, points: a limit below 3 keeps all; one over the limit makes bins of 2.
    for (const auto& [samples, limit, count] : std::vector<std::tuple<std::size_t, std::int64_t, std::size_t>>{
             {300, 3460, 300}, {50, 2, 50}, {0, 512, 0}, {512, 512, 512}, {513, 512, 258}}) {
        const auto ramp = samplesBy(
            samples, [](std::size_t i) { return i; }, [](std::size_t) { return 0; });
        const auto reduced = Support::reducedPoints(ramp, 100, limit);
        ASSERT_EQ(reduced.size(), count) << samples;
        if (count > 0) {
            EXPECT_EQ(reduced.back().index, static_cast<std::int64_t>(samples) - 1);
        }
    }
}

TEST(ChartExportSupport, TextsOfThePictureInBothLanguages) {
    const auto summary = Support::totals(samplesBy(
                                             3'601, [](std::size_t) { return 1'250'000; },
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

// The picture's name is the CSV's with its extension replaced (std::filesystem's rule).
TEST(ChartExportFlow, NamesTheCsvAfterTheTime) {
    // ICU reads the process's zone once, and an earlier test in this process may have made it: it is
    // read again with TZ set, and once more at the end, after TZ is restored.
    struct ReadZoneAtEnd {
        ~ReadZoneAtEnd() { icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone()); }
    } const readAtEnd;
    const ScopedEnvironment zone{{"TZ", "Asia/Shanghai"}};
    icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone());
    const auto time = std::chrono::sys_days(std::chrono::year(2025) / 3 / 1) + std::chrono::hours(20);
    EXPECT_EQ(Support::suggestedFileName(time), "Vantorix-20250302-040000.csv");
}

// A missing folder's message is the command line's test's.
TEST(ChartExportFlow, WritesBothFilesOrStopsAtTheFirstFailure) {
    const ScopedLanguage english("en_US.UTF-8");
    const TemporaryFolder folder;
    const auto path = [&folder](const char* name) { return (folder.path() / name).string(); };
    // A renderer that hands out fixed bytes and counts its calls.
    int renders = 0;
    const auto renderer = [&renders](std::optional<ChartDataExportError> failure = std::nullopt) {
        return [&renders, failure](const SampleWindow& samples, std::int64_t intervalMs) -> PNGResult {
            ++renders;
            EXPECT_EQ(intervalMs, 100);
            if (failure) return Failure{*failure};
            return std::vector<std::uint8_t>{0x89, 'P', 'N', 'G', static_cast<std::uint8_t>(samples.size())};
        };
    };
    const SampleWindow two = samplesOf({{1, 2}, {3, 4}});
    writeFile(path("run.png"), "an older picture that is replaced");
    EXPECT_EQ(Support::exportChart(two, 100, path("run.csv"), renderer()),
              (Support::Outcome{true, "CSV saved to: " + path("run.csv") + "\nPNG saved to: " + path("run.png")}));
    EXPECT_EQ(fileContents(path("run.csv")), Support::csvText(two, 100));
    EXPECT_EQ(fileContents(path("run.png")), std::string("\x89PNG\x02", 5));

    // Fewer than two samples: nothing happens. The picture is made first: when that fails, no file is written.
    EXPECT_EQ(Support::exportChart(samplesOf({{1, 1}}), 100, path("one.csv"), renderer()), std::nullopt);
    EXPECT_EQ(renders, 1);
    EXPECT_EQ(Support::exportChart(two, 100, path("bad.csv"), renderer(ChartDataExportError::pngEncodingFailed())),
              (Support::Outcome{false, "Export failed: Failed to encode the chart as a PNG image."}));

    // The PNG cannot be written (a folder has its name): the CSV stays.
    fs::create_directory(path("blocked.png"));
    const ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(Support::exportChart(two, 100, path("blocked.csv"), renderer()),
              (Support::Outcome{false, "导出失败：无法写入文件“" + path("blocked.png") + "”：Is a directory"}));
    EXPECT_EQ(fileContents(path("blocked.csv")), Support::csvText(two, 100));
    EXPECT_EQ(folder.names(), (std::set<std::string>{"blocked.csv", "blocked.png", "run.csv", "run.png"}));
}

TEST(LatencyExport, NamesItsFileAfterTheChartsAndLeavesAbsentFiguresEmpty) {
    for (const auto& [chart, latency] :
         std::vector<std::pair<std::string, std::string>>{{"run.csv", "run-latency.csv"},
                                                          {"/x.y/io.data.csv", "/x.y/io.data-latency.csv"},
                                                          {"x.y/run", "x.y/run-latency.csv"}})
        EXPECT_EQ(LatencyExport::csvPath(chart), latency);

    // A second of three reads in 1 ms and no write, half of it busy, 1.5 requests queued on average,
    // 2 in flight at its end, 4 discards and a flush; then a reading after the device was reset,
    // which spans no time.
    using namespace std::chrono_literals;
    const LoadCounters second{.wall = 1s,
                              .readsCompleted = 3,
                              .readMilliseconds = 1,
                              .busyMilliseconds = 500,
                              .weightedMilliseconds = 1500,
                              .discardsCompleted = 4,
                              .flushesCompleted = 1,
                              .inFlight = 2};
    EXPECT_EQ(LatencyExport::csvText(samplesOf({{0, 0}, {0, 0}}, {second, LoadCounters{.inFlight = 7}})),
              "timestamp,read_await_ms,write_await_ms,utilization_percent,average_queue_depth,in_flight,"
              "discards_per_sec,flushes_per_sec\n"
              "2025-03-01T08:15:30.125Z,0.333333,,50,1.5,2,4,1\n"
              "2025-03-01T08:15:31.125Z,,,,,7,,");
}

// After the chart's CSV and PNG, the latency CSV is written whole or not at all.
TEST(LatencyExport, WritesTheThirdFileWholeOrNotAtAll) {
    const ScopedLanguage english("en_US.UTF-8");
    const TemporaryFolder folder;
    const auto path = [&folder](const char* name) { return (folder.path() / name).string(); };
    const auto renderer = [](const SampleWindow&, std::int64_t) -> PNGResult { return std::vector<std::uint8_t>{1}; };
    const SampleWindow two = samplesOf({{1, 2}, {3, 4}});
    EXPECT_EQ(LatencyExport::exportChart(two, 100, path("run.csv"), renderer),
              (Support::Outcome{true, "CSV saved to: " + path("run.csv") + "\nPNG saved to: " + path("run.png") +
                                          "\nLatency CSV saved to: " + path("run-latency.csv")}));
    EXPECT_EQ(fileContents(path("run-latency.csv")), LatencyExport::csvText(two));

    // A folder in its place: the two files written are named, then why the third is not there.
    fs::create_directory(path("held-latency.csv"));
    EXPECT_EQ(LatencyExport::exportChart(two, 100, path("held.csv"), renderer),
              (Support::Outcome{false, "CSV saved to: " + path("held.csv") + "\nPNG saved to: " + path("held.png") +
                                           "\nExport failed: Could not write the file “" + path("held-latency.csv") +
                                           "”: Is a directory"}));

    // A write that fails after its first bytes (past the file size limit) leaves nothing behind.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 8;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto failure = LatencyExport::writeWhole(path("big-latency.csv"), std::string(64, 'x'));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &saved), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(failure, "Could not write the file “" + path("big-latency.csv") + "”: File too large");
    EXPECT_EQ(folder.names(), (std::set<std::string>{"held-latency.csv", "held.csv", "held.png", "run-latency.csv",
                                                     "run.csv", "run.png"}));
}

}  // namespace
}  // namespace vantorix
