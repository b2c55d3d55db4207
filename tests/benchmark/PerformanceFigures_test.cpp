#include "benchmark/DataSize.h"
#include "benchmark/DiskPerformanceTester.h"
#include "benchmark/PerformanceMetrics.h"
#include "benchmark/PerformanceReport.h"
#include "benchmark/ProgressTracker.h"
#include "benchmark/ResultHistory.h"
#include "health/HealthHistory.h"
#include "platform/linux/PosixFileSystem.h"
#include "support/ManualMainExecutor.h"
#include "support/MemoryFileSystem.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedBlockDevices.h"
#include "support/TemporaryFolder.h"
#include "text/Formats.h"
#include "text/Language.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <set>

namespace vantorix {
namespace {

using namespace std::chrono;

constexpr std::uint64_t GB = 1'000'000'000ULL;

TEST(PayloadSizing, RuleAtItsBoundariesAndTheChoicesIds) {
    struct Case {
        DataSize size;
        std::optional<std::uint64_t> free;
        std::optional<std::uint64_t> bytes;  // absent: not enough free space
    };
    const Case cases[] = {
        {DataSize::gigabytes(10), std::nullopt, 10 * GB},
        {DataSize::availableSpace(), std::nullopt, std::nullopt},
        {DataSize::availableSpace(), 999'999'999, std::nullopt},
        {DataSize::availableSpace(), GB, GB},
        {DataSize::gigabytes(10), 10 * GB, 10 * GB},
        {DataSize::gigabytes(10), 10 * GB - 1, std::nullopt},
        {DataSize::availableSpace(), 1'234'567'890'123ULL, 1'234'000'000'000ULL},
        {DataSize::availableSpace(), 499'963'174'912ULL, 499'000'000'000ULL},
        {DataSize::gigabytes(0), 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size.id() + " free " + (c.free ? std::to_string(*c.free) : "unknown"));
        const auto payload = effectivePayload(c.size, c.free);
        ASSERT_EQ(payload.has_value(), c.bytes.has_value());
        if (payload) {
            EXPECT_EQ(payload->byteCount, *c.bytes);
            EXPECT_FALSE(payload->isAdjusted);
        }
    }
    // The ids are what the command line's JSON says; the titles are the pickers' (dashboard tests).
    std::vector<std::string> ids;
    for (const auto& size : DataSize::allCases()) ids.push_back(size.id());
    EXPECT_EQ(ids, (std::vector<std::string>{"availableSpace", "gigabytes_1", "gigabytes_10", "gigabytes_100",
                                             "gigabytes_1000", "gigabytes_10000"}));
}

// The Chinese rows are those whose word order and punctuation differ from the English.
TEST(PayloadSizing, ContextTextsInBothLanguages) {
    DiskVolumeDescriptor volume;
    volume.availableCapacityBytes = 1'234'567'890'123ULL;
    const EffectivePayload whole{1'234'000'000'000ULL, false}, adjusted{5 * GB, true};
    struct Case {
        const char* lang;
        std::optional<DiskVolumeDescriptor> volume;
        DataSize size;
        std::optional<EffectivePayload> preview;  // also what the context shows, and whether a test may run
        std::string description;
        std::optional<std::string> warning;
    };
    const char *en = "en_US.UTF-8", *zh = "zh_CN.UTF-8";
    const auto all = DataSize::availableSpace(), ten = DataSize::gigabytes(10);
    const std::string full = "Not enough free space to run the performance test.";
    const Case cases[] = {
        {en, std::nullopt, all, std::nullopt, "Payload: Full Disk", "Please choose a volume before running the test."},
        {en, volume, all, std::nullopt, full, full},
        {en, volume, all, whole, "Payload: Full Disk (1.23 TB)", {}},
        {en, volume, ten, adjusted, "Current payload: 10 GB (will adjust to 5 GB)", {}},
        {zh, volume, all, whole, "数据量：全盘（1.23 TB）", {}},
        {zh, volume, ten, adjusted, "当前测试数据量：10 GB（预计自动调整为 5 GB）", {}},
    };
    for (const auto& c : cases) {
        testing::ScopedLanguage language(c.lang);
        const auto context = performancePayloadContext(c.volume, c.size, c.preview);
        EXPECT_EQ(context, (PerformancePayloadContext{c.description, c.preview, c.preview.has_value(), c.warning}))
            << context.description;
    }
}

TEST(PerformanceMetrics, StripTexts) {
    testing::ScopedLanguage english("en_US.UTF-8");
    for (const auto& [fraction, text] : {std::pair{0.0, "0%"}, {0.1234, "12.3%"}, {1.7, "100%"}, {-1.0, "0%"}}) {
        EXPECT_EQ(PerformanceMetrics::progressText(fraction), text) << fraction;
    }
    using Strings = std::vector<std::string>;
    const auto texts = [](const std::vector<MetricItem>& items, bool titles = false) {
        Strings result;
        for (const auto& item : items) result.push_back(titles ? item.title : item.value);
        return result;
    };
    const auto starting = PerformanceMetrics::runningItems(std::nullopt, "1 GB");
    EXPECT_EQ(texts(starting), (Strings{"0%", "1 GB", "Random Write Phase", "00:00:00", "Calculating…"}));
    EXPECT_EQ(starting[4].style, MetricItem::Style::placeholder);
    const ProgressState reading{BenchmarkPhase::sequentialRead, 0.75, 30, 10, std::nullopt};
    EXPECT_EQ(texts(PerformanceMetrics::runningItems(reading, "1 GB")),
              (Strings{"75%", "1 GB", "Sequential Read Phase", "00:00:30", "00:00:10"}));

    PerformanceResult result;
    result.actualByteCount = 2'500'000'000ULL;
    result.writeThroughput = 1'234'567'890;
    const auto items = PerformanceMetrics::resultItems(result);
    EXPECT_EQ(texts(items, true),
              (Strings{"Sample Size", "Average Write Speed", "Average Read Speed", "Random Write IOPS",
                       "Random Read IOPS", "Peak Write Speed", "Peak Read Speed", "Finished"}));
    const auto values = texts(items);
    EXPECT_EQ(Strings(values.begin(), values.begin() + 3), (Strings{"2.5 GB", "1.23 GB/s", "0 MB/s"}));
}

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
    const std::vector<DiskSMARTInfo::Detail> rows{{Uuid::make(), "temperature.current", "Temperature", "35 °C"},
                                                  {Uuid::make(), "power_on_time.hours", "Power-on <hours>", "1234"}};
    volume.smartInfo = DiskSMARTInfo{"PASSED", true, rows, std::nullopt};
    return volume;
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
    std::string expected = testing::fileContents(std::string(VANTORIX_TEST_DATA_DIR) + "/report/" + name);
    // The finish time is in the user's zone, in text::mediumDateTimeText's format.
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

        // Phases that all reached the device leave the document as it is; one served from the page
        // cache adds the device check, with its warning, between the figures and the chart.
        PerformanceResult checked = fixedResult();
        for (const auto phase : kBenchmarkPhases) checked.phaseTraffic.push_back({phase, 1'000'000, 999'424});
        EXPECT_EQ(report::reportHTML(checked, fixedVolume()), standard);
        checked.phaseTraffic[1].deviceBytes = 4096;
        checked.phaseTraffic[3].deviceBytes.reset();
        const std::string cached = report::reportHTML(checked, fixedVolume());
        const auto chart = standard.find("\n    <div class=\"card\">\n        <h2>" +
                                         report::htmlEscaped(text::localized("吞吐率图表", "Throughput Chart")));
        ASSERT_NE(chart, std::string::npos);
        EXPECT_EQ(cached.substr(0, chart), standard.substr(0, chart));
        const std::string added = cached.substr(chart, cached.size() - standard.size());
        EXPECT_EQ(cached.substr(chart + added.size()), standard.substr(chart));
        EXPECT_NE(added.find(report::htmlEscaped(pageCacheWarning(BenchmarkPhase::randomRead))), std::string::npos);
        EXPECT_EQ(added.find(pageCacheWarning(BenchmarkPhase::randomWrite)), std::string::npos);
        EXPECT_NE(added.find("<td>1 MB</td><td>4 KB</td>"), std::string::npos) << added;
        EXPECT_NE(added.find(text::localized("不可用", "Unavailable")), std::string::npos);

        EXPECT_EQ(report::reportHTML(queueDepthResult(), fixedVolume()),
                  expectedDocument(std::string("report-queue-depth-") + lang + ".html"));
    }
}

// An empty timeline is the queue-depth documents'; SMART details, the standard ones'.
TEST(PerformanceReport, ChartOfASingleSampleAndSmartSectionsWithoutDetails) {
    const auto labels = report::ChartLabels{"T", "B", "W", "R", "None", "Chart"};
    // A single sample (a phase shorter than a second) sits at the plot's top left corner.
    const std::string one = report::chartSVG({sample(TimelineSample::Phase::sequentialRead, 12, 5e8)}, labels);
    EXPECT_NE(one.find("<polyline points=\"50.00,50.00\" fill=\"none\" stroke=\"#38bdf8\""), std::string::npos);
    EXPECT_EQ(one.find("#f97316\" stroke-width"), std::string::npos);

    testing::ScopedLanguage language("en_US.UTF-8");
    EXPECT_NE(report::smartSection(std::nullopt).find("<p>No SMART information was provided.</p>"), std::string::npos);
    const std::string bare = report::smartSection(DiskSMARTInfo{std::nullopt, false, {}, std::nullopt});
    EXPECT_NE(bare.find("<strong>SMART Capable:</strong> Not Supported"), std::string::npos) << bare;
    EXPECT_NE(bare.find("The system did not expose additional SMART attributes."), std::string::npos) << bare;
}

TEST(PerformanceReport, NamesTakeTheFirstFreeSuffix) {
    const testing::TemporaryFolder folder;
    const std::string base = report::reportBaseName(november16());
    EXPECT_EQ(base, "Vantorix-Performance-20261116-134501");
    auto directory = PosixFileSystem().openDirectory(folder.string(), "");
    ASSERT_TRUE(directory) << directory.error().message;
    for (const char* content : {"first", "second", "third"}) {
        auto path = (*directory)->writeNewFileAtomically(base, ".html", content);
        ASSERT_TRUE(path) << path.error().message;
        EXPECT_EQ(testing::fileContents(*path), content);
    }
    // Only the three reports: no temporary file is left.
    EXPECT_EQ(folder.names(), (std::set<std::string>{base + ".html", base + "-1.html", base + "-2.html"}));
}

using testing::MemoryFileSystem;
using Operation = MemoryFileSystem::Operation;

DiskVolumeDescriptor volume(std::optional<std::uint64_t> freeBytes = 100'000'000'000ULL) {
    DiskVolumeDescriptor descriptor;
    descriptor.url = "/mnt/test";
    descriptor.deviceName = "loop9";
    descriptor.availableCapacityBytes = freeBytes;
    return descriptor;
}

struct Harness {
    explicit Harness(std::uint64_t payload,
                     std::optional<DiskPerformanceTester::Dependencies::History> history = std::nullopt) {
        DiskPerformanceTester::Parameters parameters;
        parameters.randomPhaseDuration = 0.05;
        parameters.payloadBytes = payload;
        // The volume's device counts `sectorsPerReading` more sectors read and written at each reading.
        BlockAttachment loop;
        loop.backingFile = "/images/loop9.img";
        devices->add(
            "loop9",
            [this] {
                BlockStatistics counters;
                counters.sectorsRead = counters.sectorsWritten = readings++ * sectorsPerReading;
                return counters;
            },
            loop);
        tester = DiskPerformanceTester::create({main, files, devices, nullptr, std::move(history)}, parameters);
        tester->setDataSize(DataSize::gigabytes(1));
        subscription = tester->subscribe([this](const DiskPerformanceTester::State& state) {
            if (state.progressState) progress.push_back(*state.progressState);
        });
    }

    // Runs until the run has ended and its files and report are done with.
    void runToEnd() {
        tester->runTest(volume());
        ASSERT_TRUE(main->runUntil([&] { return !tester->state().isRunning; }, std::chrono::seconds(60)));
        tester->waitForBackgroundWork();
        main->drain();
    }

    std::shared_ptr<ManualMainExecutor> main = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<MemoryFileSystem> files = std::make_shared<MemoryFileSystem>();
    std::shared_ptr<testing::ScriptedBlockDevices> devices = std::make_shared<testing::ScriptedBlockDevices>();
    std::atomic<std::uint64_t> readings{0}, sectorsPerReading{0};
    std::shared_ptr<DiskPerformanceTester> tester;
    std::vector<ProgressState> progress;
    Subscription subscription;
};

std::vector<std::uint64_t> values(const std::vector<Operation>& operations, Operation::Kind kind) {
    std::vector<std::uint64_t> found;
    for (const auto& operation : operations) {
        if (operation.kind == kind) found.push_back(operation.value);
    }
    return found;
}

// Bypassing the cache, the payload is whole 4 KiB blocks moved at aligned offsets, and the random
// file is laid out in 1 MiB writes first.
TEST(DiskPerformanceTester, SuccessfulRunsPublishTheResultRemoveTheFilesAndWriteTheReport) {
    struct Case {
        std::uint64_t payload, actual;
        bool direct;
        std::uint64_t firstWrite, lastOffset;
        std::vector<std::uint64_t> chunks;  // of the sequential phases
    };
    const std::uint64_t S = 16'777'216;
    const Case cases[] = {{2 * S + 1, 2 * S + 1, false, 4096, 2 * S + 1 - 4096, {S, S, 1}},
                          {4096, 4096, false, 4096, 0, {4096}},
                          {1000, 1000, false, 1000, 0, {1000}},
                          {S + 5000, S + 4096, true, 1'048'576, S, {S, 4096}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.payload);
        Harness h(c.payload);
        // The device counts a terabyte in each direct phase and nothing in the buffered ones.
        h.sectorsPerReading = c.direct ? 1ULL << 31 : 0;
        h.tester->setTestMode(TestMode{TestKind::standard, c.direct, 5});
        EXPECT_EQ(h.tester->payloadPreview(volume())->byteCount, c.actual);
        h.runToEnd();
        const auto& state = h.tester->state();
        ASSERT_TRUE(state.lastResult) << state.errorMessage.value_or("");
        const auto& result = *state.lastResult;
        EXPECT_EQ(result.actualByteCount, c.actual);
        // Each phase, in order, with what it moved, against what the device counted meanwhile.
        ASSERT_EQ(result.phaseTraffic.size(), 4U);
        for (std::size_t i = 0; i < 4; ++i) {
            const auto& traffic = result.phaseTraffic[i];
            EXPECT_EQ(traffic.phase, kBenchmarkPhases[i]);
            EXPECT_EQ(traffic.deviceBytes, (c.direct ? 1ULL << 31 : 0) * BlockStatistics::kSectorBytes);
            EXPECT_EQ(traffic.servedFromPageCache(), !c.direct);
            if (i >= 2) {
                EXPECT_EQ(traffic.bytesMoved, c.actual);
            }
        }
        EXPECT_EQ(result.phaseTraffic[0].bytesMoved % std::min<std::uint64_t>(c.actual, 4096), 0U);
        for (const double figure :
             {result.randomWriteIOPS, result.randomReadIOPS, result.writeThroughput, result.readThroughput}) {
            EXPECT_GT(figure, 0);
        }
        // The sequential phases' timeline, and the peaks taken from it.
        EXPECT_FALSE(result.timeline.empty());
        EXPECT_GT(result.maximumWriteThroughput, 0);
        EXPECT_GT(result.maximumReadThroughput, 0);

        // Two files, and nothing left behind.
        EXPECT_EQ(h.files->everCreated().size(), 2U);
        EXPECT_FALSE(h.files->holdsFiles());
        EXPECT_TRUE(h.tester->temporaryFiles().empty());

        const auto opens = h.files->opens();
        EXPECT_EQ(std::count(opens.begin(), opens.end(), CacheMode::direct), c.direct ? 4 : 0);
        const auto writes = values(h.files->operations(), Operation::write);
        const auto reads = values(h.files->operations(), Operation::read);
        ASSERT_GE(writes.size(), c.chunks.size() + 1);
        EXPECT_EQ(writes.front(), c.firstWrite);
        EXPECT_EQ(std::vector<std::uint64_t>(writes.end() - static_cast<long>(c.chunks.size()), writes.end()),
                  c.chunks);
        EXPECT_EQ(std::vector<std::uint64_t>(reads.end() - static_cast<long>(c.chunks.size()), reads.end()), c.chunks);
        for (const auto offset : values(h.files->operations(), Operation::seek)) {
            EXPECT_LE(offset, c.lastOffset);
            EXPECT_TRUE(!c.direct || offset % 4096 == 0) << offset;
        }

        // Progress reaches 0.5 after the write and ends at 1.
        EXPECT_TRUE(std::any_of(h.progress.begin(), h.progress.end(), [](const ProgressState& p) {
            return p.phase == BenchmarkPhase::sequentialWrite && p.fractionCompleted == 0.5;
        }));
        ASSERT_FALSE(h.progress.empty());
        EXPECT_EQ(h.progress.back().fractionCompleted, 1);

        // The report went to the volume's folder.
        const auto reports = h.files->reports();
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_EQ(state.lastReportPath, reports.begin()->first);
        EXPECT_NE(state.automaticReportMessage.value_or("").find(reports.begin()->first), std::string::npos);
    }
}

TEST(DiskPerformanceTester, FailuresNameTheirCauseAndLeaveNothingBehind) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const char* noBypass =
        "This file system cannot bypass the cache (it refuses direct I/O or keeps its files in memory), so a "
        "cache-bypass test cannot run on it.";
    const char* gone = "The volume was unmounted or removed; the test cannot go on.";
    const auto refuseDirect = [](Harness& h) { h.files->refuseDirect = true; };
    struct Case {
        const char* name;
        void (*arrange)(Harness&);
        TestMode mode;
        const char* message;  // empty: the run succeeds
    };
    const char* full = "Write phase failed. Please check the disk status. No space left on device.";
    const char* shrank =
        "Not enough free space to run the performance test. The free space shrank after the test started: the test "
        "needs 33.6 MB, but only 20 MB are free.";
    const TestMode directStandard{TestKind::standard, true, 0.01}, directQueued{TestKind::queueDepth, true, 0.01};
    // The volume goes while the queue-depth test reads.
    const auto goneWhileReading = [](Harness& h) {
        h.subscription = h.tester->subscribe([files = h.files](const DiskPerformanceTester::State& state) {
            if (state.progressState && state.progressState->stepName == "SEQ1M Q8T1 Read") files->gone = true;
        });
    };
    const Case cases[] = {
        {"full", [](Harness& h) { h.files->writeError = ENOSPC; }, directStandard, full},
        {"space gone since the start", [](Harness& h) { h.files->capacity = 20'000'000; }, {}, shrank},
        {"space given out only after a commit", [](Harness& h) { h.files->fullUntilCommit = true; }, {}, ""},
        // Gone during a standard test is the integration test's (a lazy unmount).
        {"volume gone before the start", [](Harness& h) { h.files->gone = true; }, {}, gone},
        {"volume gone in a queued job", goneWhileReading, {TestKind::queueDepth, true, 0.3}, gone},
        {"no direct I/O", refuseDirect, directStandard, noBypass},
        {"no direct I/O, queue depth", refuseDirect, directQueued, noBypass},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(16'777'216ULL * 2);
        h.tester->setTestMode(c.mode);
        c.arrange(h);
        h.runToEnd();
        EXPECT_EQ(h.tester->state().errorMessage.value_or(""), c.message);
        // A failure leaves no result and no report; no run leaves a file.
        EXPECT_EQ(h.tester->state().lastResult.has_value(), *c.message == '\0');
        EXPECT_EQ(h.files->reports().size(), *c.message == '\0' ? 1U : 0U);
        EXPECT_FALSE(h.files->holdsFiles());
        EXPECT_TRUE(h.tester->temporaryFiles().empty());
        EXPECT_TRUE(!h.files->refuseDirect || h.files->opens().empty());  // no buffered fallback
    }
}

TEST(DiskPerformanceTester, ARunWithoutRoomForItsPayloadDoesNotStartAndSaysWhy) {
    testing::ScopedLanguage chinese("zh_CN.UTF-8");
    Harness h(1'000'000);
    h.files->capacity = 600'000;
    h.tester->runTest(volume(500'000));
    EXPECT_EQ(h.tester->state().errorMessage, "剩余容量不足，无法运行性能测试。测试需要 1 MB，但只有 0.6 MB 可用。");
    EXPECT_FALSE(h.tester->state().isRunning);
    EXPECT_TRUE(h.files->everCreated().empty());
}

// A run started right after a stop, on a volume with room for one test file: the volume's figure
// of free space still counts the stopped run's file, which is open and not yet removed. The new
// run counts that file's space as free, waits until the stopped run has let go of it, and passes;
// nothing but its report is left.
TEST(DiskPerformanceTester, ARunStartedRightAfterAStopUsesTheSpaceTheStoppedRunGivesBack) {
    const std::uint64_t payload = 16'777'216ULL * 2;
    Harness h(payload);
    h.files->capacity = payload * 3 / 2;
    bool restarted = false;
    std::atomic<bool> once{false};
    // The stopped run's thread waits in the phase's start, its file open, until the new run started.
    h.tester->setPhaseObserver({[&](BenchmarkPhase started) {
                                    if (started != BenchmarkPhase::sequentialRead || once.exchange(true)) return;
                                    std::promise<void> done;
                                    h.main->post([&] {
                                        h.tester->stopTest();
                                        h.tester->runTest(volume(h.files->capacity - payload));
                                        restarted = h.tester->state().isRunning;
                                        done.set_value();
                                    });
                                    done.get_future().wait();
                                },
                                {}});
    h.runToEnd();
    EXPECT_TRUE(restarted);
    EXPECT_TRUE(h.tester->state().lastResult) << h.tester->state().errorMessage.value_or("");
    EXPECT_FALSE(h.files->holdsFiles());
    EXPECT_TRUE(h.tester->temporaryFiles().empty());
    EXPECT_EQ(h.files->reports().size(), 1U);
}

// The profiles' names and order on a real device are the integration test's; here, the jobs asked for.
TEST(DiskPerformanceTester, QueueDepthTestLaysOutTheFileThenReadsAndWritesEachProfile) {
    Harness h(8'388'608ULL + 12345);
    h.tester->setTestMode(TestMode{TestKind::queueDepth, false, 0.02});
    h.runToEnd();
    ASSERT_TRUE(h.tester->state().lastResult) << h.tester->state().errorMessage.value_or("");
    const auto& result = *h.tester->state().lastResult;
    EXPECT_EQ(result.actualByteCount, 8'388'608ULL);  // whole 1 MiB blocks
    ASSERT_EQ(result.queueDepthFigures.size(), 4U);
    EXPECT_EQ(result.writeThroughput, result.queueDepthFigures[0].writeBytesPerSecond);

    const auto jobs = h.files->queuedJobs();
    ASSERT_EQ(jobs.size(), 9U);
    EXPECT_EQ(jobs[0].byteLimit, 8'388'608ULL);
    EXPECT_EQ(jobs[0].direction, QueuedJob::Direction::write);
    for (std::size_t i = 1; i < jobs.size(); ++i) {
        const auto& profile = kQueueDepthProfiles[(i - 1) % 4];
        SCOPED_TRACE(profile.name);
        EXPECT_EQ(jobs[i].direction, i <= 4 ? QueuedJob::Direction::read : QueuedJob::Direction::write);
        EXPECT_EQ(std::tie(jobs[i].pattern, jobs[i].blockSize, jobs[i].queueDepth),
                  std::tie(profile.pattern, profile.blockSize, profile.queueDepth));
        EXPECT_EQ(jobs[i].span, 8'388'608ULL);
        EXPECT_FALSE(jobs[i].byteLimit);
        EXPECT_EQ(jobs[i].duration, std::chrono::milliseconds(20));
    }
    EXPECT_FALSE(h.files->holdsFiles());
}

// Each finished run is recorded for its drive; the next run of the same kind is compared with it,
// and a fall beyond run-to-run noise is a drop.
TEST(ResultHistory, RunsAreComparedWithThePreviousRunOfTheirKindOnTheirDrive) {
    const testing::TemporaryFolder folder;
    const DiskPerformanceTester::Dependencies::History history{(folder.path() / "h.sqlite").string(), "9.9"};
    for (int run = 0; run < 2; ++run) {
        Harness h(4096 * 4, history);
        h.runToEnd();
        ASSERT_TRUE(h.tester->state().lastResult) << h.tester->state().errorMessage.value_or("");
        const auto& comparison = h.tester->state().lastResult->comparison;
        ASSERT_EQ(comparison.has_value(), run == 1);
        EXPECT_EQ(comparison ? comparison->changes.size() : 4U, 4U);
    }
    auto opened = health::HealthHistory::open(history.path);
    ASSERT_TRUE(opened) << opened.error();
    auto& stored = *opened.value();
    PerformanceResult result = fixedResult();
    result.phaseTraffic = {{BenchmarkPhase::randomRead, 1000, 10},
                           {BenchmarkPhase::sequentialWrite, 1000, std::nullopt}};
    const std::string key = "file:/images/loop9.img";
    ASSERT_EQ(stored.runs(key)->size(), 2U);
    EXPECT_EQ(stored.runs(key)->back().version, "9.9");
    const auto before = benchmarkRun(result, "9.9");
    EXPECT_EQ(storedPageCheck(before), result.phaseTraffic);

    // Against the run before it of its own kind: a direct run in between does not count.
    health::DriveIdentity drive;
    drive.backingFile = "/images/other.img";
    ASSERT_TRUE(stored.recordRun(drive, before).value());
    result.mode.bypassCache = true;
    result.finishedAt += std::chrono::minutes(1);
    ASSERT_TRUE(stored.recordRun(drive, benchmarkRun(result, "9.9")).value());
    result.mode.bypassCache = false;
    result.finishedAt += std::chrono::minutes(1);
    const double write = result.writeThroughput, read = result.readThroughput;
    result.writeThroughput = write * 0.84;  // -16%: a drop
    result.readThroughput = read * 0.86;    // -14%: noise
    const auto runs = stored.runs(drive.key()).value();
    ASSERT_EQ(runs.size(), 2U);
    const auto* previous = previousRun(runs, runKind(result.mode), benchmarkRun(result, "").finishedMs);
    ASSERT_NE(previous, nullptr);
    EXPECT_EQ(previous->finishedMs, before.finishedMs);
    const auto comparison = compareWith(comparableFigures(result), *previous);
    ASSERT_NE(comparison.change("writeThroughput"), nullptr);
    EXPECT_NEAR(comparison.change("writeThroughput")->percent, -16, 1e-9);
    EXPECT_TRUE(comparison.change("writeThroughput")->dropped);
    EXPECT_FALSE(comparison.change("readThroughput")->dropped);
    EXPECT_FALSE(comparison.change("randomReadIOPS")->dropped);

    testing::ScopedLanguage english("en_US.UTF-8");
    result.comparison = comparison;
    const std::string report = report::reportHTML(result, fixedVolume());
    EXPECT_NE(report.find("<h2>Compared With the Previous Run</h2>"), std::string::npos);
    EXPECT_NE(report.find("Warning: Average Write Speed is 16% below the previous run&#39;s"), std::string::npos)
        << report;
    EXPECT_EQ(report.find("Warning: Average Read Speed"), std::string::npos);
    EXPECT_EQ(PerformanceMetrics::resultItems(result)[1].icon, PerformanceMetrics::warningIcon());
}

TEST(ResultHistory, DrivesAreKnownByWorldWideNameSerialOrBackingFile) {
    struct Case {
        std::optional<std::string> wwn, model, serial, backingFile;
        const char* key;
    };
    const Case cases[] = {
        {"naa.5002538E40A22954", "Samsung SSD", "S3YZ", std::nullopt, "wwn:0x5002538e40a22954"},
        {"eui.0025385b71b0a0b1", "INTEL SSDPEKNW010T8", "BTNH", std::nullopt, "model-serial:INTEL SSDPEKNW010T8/BTNH"},
        {std::nullopt, std::nullopt, std::nullopt, "/var/images/a.img", "file:/var/images/a.img"},
        {"t10.ATA QEMU", std::nullopt, std::nullopt, std::nullopt, ""},
    };
    for (const auto& c : cases) {
        BlockDevice device;
        device.name = "sdz";
        device.attachment.wwn = c.wwn;
        device.attachment.model = c.model;
        device.attachment.serial = c.serial;
        device.attachment.backingFile = c.backingFile;
        EXPECT_EQ(driveIdentity(device).key(), c.key);
    }
    // The change as the strip and the report show it.
    EXPECT_EQ(changeText(-21.4), "\u221221%");
    EXPECT_EQ(changeText(3.25), "+3.2%");
    EXPECT_EQ(changeText(0.01), "±0%");
}

}  // namespace
}  // namespace vantorix
