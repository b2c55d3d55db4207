#include "benchmark/PerformanceReport.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/linux/PosixFileSystem.h"
#include "support/ScopedEnvironment.h"
#include "text/Formats.h"

namespace vantorix {
namespace {

using namespace std::chrono;

system_clock::time_point november16() {
    return sys_days{year{2026} / November / 16} + hours{13} + minutes{45} + seconds{1};
}

TimelineSample sample(TimelineSample::Phase phase, double timestamp, double throughput) {
    return {Uuid::make(), phase, timestamp, static_cast<std::uint64_t>(throughput), throughput};
}

PerformanceResult fixedResult() {
    PerformanceResult result;
    result.dataSize = DataSize::gigabytes(1);
    result.actualByteCount = 1'000'000'000;
    result.isPayloadAdjusted = true;
    result.writeDuration = 2;
    result.writeThroughput = 500'000'000;
    result.readDuration = 0.5;
    result.readThroughput = 2'000'000'000;
    result.randomWriteIOPS = 12'345.678;
    result.randomReadIOPS = 45'678.9;
    result.randomOperationCount = 61'728;
    result.maximumWriteThroughput = 600'000'000;
    result.maximumReadThroughput = 2'100'000'000;
    result.timeline = {sample(TimelineSample::Phase::sequentialWrite, 11.0, 450'000'000),
                       sample(TimelineSample::Phase::sequentialWrite, 12.0, 600'000'000),
                       sample(TimelineSample::Phase::sequentialRead, 12.5, 2'100'000'000)};
    result.finishedAt = november16();
    return result;
}

DiskVolumeDescriptor fixedVolume() {
    DiskVolumeDescriptor volume;
    volume.url = "/media/user/Backup";
    volume.deviceName = "sdb1";
    volume.displayName = "Tom's <Backup> & \"More\"";
    volume.connectionTypeDescription = "USB";
    volume.connectionSpeedDescription = "5Gbps";
    volume.fileSystemDescription = "EXT4";
    volume.totalCapacityBytes = 2'000'398'934'016ULL;
    volume.availableCapacityBytes = 1'234'567'890'123ULL;
    volume.hardwareVendor = "SanDisk";
    DiskSMARTInfo smart;
    smart.overallStatus = "PASSED";
    smart.isCapable = true;
    smart.details = {{Uuid::make(), "temperature.current", "Temperature", "35 °C"},
                     {Uuid::make(), "power_on_time.hours", "Power-on <hours>", "1234"}};
    volume.smartInfo = smart;
    return volume;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

// The queue-depth test's result: its four profiles, and no timeline.
PerformanceResult queueDepthResult() {
    PerformanceResult result = fixedResult();
    result.mode.kind = TestKind::queueDepth;
    result.mode.secondsPerProfile = 5;
    result.timeline.clear();
    result.queueDepthFigures = {{"SEQ1M Q8T1", 3'512'345'678, 3349.6, 2'987'654'321, 2849.3},
                                {"SEQ1M Q1T1", 1'987'000'000, 1894.9, 1'876'000'000, 1789.1},
                                {"RND4K Q32T1", 1'234'567'890, 301'408.2, 987'654'321, 241'126.5},
                                {"RND4K Q1T1", 61'234'567, 14'949.8, 198'765'432, 48'526.7}};
    return result;
}

std::string expectedDocument(const std::string& name) {
    std::string expected = readFile(std::string(VANTORIX_TEST_DATA_DIR) + "/report/" + name);
    // The finish time is in the user's zone; that format is checked on its own below.
    const std::string placeholder = "{{finishedAt}}";
    if (const auto at = expected.find(placeholder); at != std::string::npos) {
        expected.replace(at, placeholder.size(), text::mediumDateTimeText(november16()));
    }
    if (!expected.empty() && expected.back() == '\n') expected.pop_back();
    return expected;
}

TEST(PerformanceReport, MatchesTheExpectedDocumentsInBothLanguages) {
    for (const char* lang : {"en", "zh"}) {
        SCOPED_TRACE(lang);
        testing::ScopedLanguage language(std::string(lang) == "en" ? "en_US.UTF-8" : "zh_CN.UTF-8");
        const std::string standard = expectedDocument(std::string("report-") + lang + ".html");
        ASSERT_FALSE(standard.empty());
        EXPECT_EQ(report::reportHTML(fixedResult(), fixedVolume()), standard);

        // Bypassing the cache changes only the line that says how the test ran.
        PerformanceResult direct = fixedResult();
        direct.mode.bypassCache = true;
        std::string expected = standard;
        expected.insert(expected.find("</h1>") + 5,
                        std::string(lang) == "en"
                            ? "\n    <p class=\"mode\">Test Mode：Cache bypass (direct I/O), queue depth 1</p>"
                            : "\n    <p class=\"mode\">测试方式：绕过缓存（直接 I/O），队列深度 1</p>");
        EXPECT_EQ(report::reportHTML(direct, fixedVolume()), expected);

        EXPECT_EQ(report::reportHTML(queueDepthResult(), fixedVolume()),
                  expectedDocument(std::string("report-queue-depth-") + lang + ".html"));
    }
}

TEST(PerformanceReport, FinishTimeFormat) {
    // ICU puts a narrow no-break space before PM.
    for (const auto& [lang, expected] : {std::pair{"en_US.UTF-8", "Nov 16, 2026, 1:45:01\u202FPM"},
                                         std::pair{"zh_CN.UTF-8", "2026年11月16日 13:45:01"}}) {
        testing::ScopedLanguage language(lang);
        EXPECT_EQ(text::mediumDateTimeText(november16(), "UTC"), expected);
    }
}

TEST(PerformanceReport, ChartEdgeCases) {
    const auto labels = report::ChartLabels{"T", "B", "W", "R", "None", "Chart"};
    // An empty timeline carries the empty text and no series.
    const std::string empty = report::chartSVG({}, labels);
    EXPECT_NE(empty.find(">None</text>"), std::string::npos);
    EXPECT_EQ(empty.find("<polyline"), std::string::npos);
    EXPECT_EQ(empty.rfind("\n</svg>"), empty.size() - 7);

    // A single sample sits at the plot's top left corner.
    const std::string one = report::chartSVG({sample(TimelineSample::Phase::sequentialRead, 12, 5e8)}, labels);
    EXPECT_NE(one.find("<polyline points=\"50.00,50.00\" fill=\"none\" stroke=\"#38bdf8\""), std::string::npos);
    EXPECT_EQ(one.find("#f97316\" stroke-width"), std::string::npos);

    // Throughput below 1 B/s is scaled against 1; time starts at the first sample.
    const std::string low = report::chartSVG({sample(TimelineSample::Phase::sequentialWrite, 10, 0.5),
                                              sample(TimelineSample::Phase::sequentialWrite, 20, 0)},
                                             labels);
    EXPECT_NE(low.find("points=\"50.00,500.00 2350.00,950.00\""), std::string::npos);

    struct Case {
        double value;
        const char* text;
    };
    for (const Case c : {Case{2400, "2400.0"}, Case{983.3333333333334, "983.3333333333334"},
                         Case{33.333333333333336, "33.333333333333336"}, Case{0.5, "0.5"}, Case{-50, "-50.0"}}) {
        EXPECT_EQ(report::shortestDecimal(c.value), c.text);
    }
    EXPECT_EQ(report::htmlEscaped("a&b<c>\"d'"), "a&amp;b&lt;c&gt;&quot;d&#39;");
}

TEST(PerformanceReport, SmartSectionVariants) {
    testing::ScopedLanguage language("en_US.UTF-8");
    EXPECT_EQ(report::smartSection(std::nullopt),
              "<div class=\"card\">\n    <h2>SMART Information</h2>\n    <p>No SMART information was provided.</p>\n</div>");
    DiskSMARTInfo bare;
    bare.isCapable = false;
    EXPECT_EQ(report::smartSection(bare),
              "<div class=\"card\">\n    <h2>SMART Information</h2>\n    <p>The information below is sourced from the "
              "system SMART report.</p>\n<ul>\n    <li><strong>SMART Capable:</strong> Not Supported</li>\n</ul>\n<p>The "
              "system did not expose additional SMART attributes.</p>\n\n</div>");
}

TEST(PerformanceReport, NamesTakeTheFirstFreeSuffix) {
    const auto folder = std::filesystem::temp_directory_path() / ("vantorix-report-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    PosixFileSystem files;
    const std::string base = report::reportBaseName(november16());
    EXPECT_EQ(base, "Vantorix-Performance-20261116-134501");
    auto directory = files.openDirectory(folder.string(), "");
    ASSERT_TRUE(directory) << directory.error().message;
    std::vector<std::string> names;
    for (const char* content : {"first", "second", "third"}) {
        auto path = (*directory)->writeNewFileAtomically(base, ".html", content);
        ASSERT_TRUE(path) << path.error().message;
        names.push_back(std::filesystem::path(*path).filename().string());
        EXPECT_EQ(readFile(*path), content);
    }
    EXPECT_EQ(names, (std::vector<std::string>{base + ".html", base + "-1.html", base + "-2.html"}));
    // Only the three reports: no temporary file is left.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()), 3);
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace vantorix
