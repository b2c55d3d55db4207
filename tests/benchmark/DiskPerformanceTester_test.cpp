#include "benchmark/DiskPerformanceTester.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>

#include "MemoryFileSystem.h"
#include "benchmark/ProgressTracker.h"
#include "support/ManualMainExecutor.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

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
    explicit Harness(std::uint64_t payload) {
        DiskPerformanceTester::Parameters parameters;
        parameters.randomPhaseDuration = 0.05;
        parameters.payloadBytes = payload;
        tester = DiskPerformanceTester::create({main, files}, parameters);
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
        h.tester->setTestMode(TestMode{TestKind::standard, c.direct, 5});
        EXPECT_EQ(h.tester->payloadPreview(volume())->byteCount, c.actual);
        h.runToEnd();
        const auto& state = h.tester->state();
        ASSERT_TRUE(state.lastResult) << state.errorMessage.value_or("");
        const auto& result = *state.lastResult;
        EXPECT_EQ(result.actualByteCount, c.actual);
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
        EXPECT_TRUE(h.files->existingFiles().empty());
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
        EXPECT_TRUE(h.files->existingFiles().empty());
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
    EXPECT_TRUE(h.files->existingFiles().empty());
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
    EXPECT_TRUE(h.files->existingFiles().empty());
}

}  // namespace
}  // namespace vantorix
