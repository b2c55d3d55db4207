#include <gtest/gtest.h>
#include <unistd.h>

#include <fmt/ranges.h>

#include <filesystem>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "benchmark/DiskPerformanceTester.h"
#include "support/ManualMainExecutor.h"
#include "log/Log.h"
#include "platform/linux/LinuxVolumeInfoSource.h"
#include "platform/linux/PosixFileSystem.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "support/LoopVolume.h"
#include "support/Process.h"
#include "support/ScopedEnvironment.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::LoopVolume;
using json = nlohmann::json;
namespace fs = std::filesystem;

const std::map<std::string, std::optional<std::string>> kEnglish{{"LANGUAGE", "en_US"}, {"LC_ALL", std::nullopt}};

class BenchmarkOnLoopVolume : public ::testing::Test {
protected:
    void SetUp() override {
        const auto reason = LoopVolume::unavailableReason();
        if (!reason.empty()) GTEST_SKIP() << "loop-device test skipped: " << reason;
        std::string error;
        volume_ = LoopVolume::create("VTXBENCH", 96ull * 1024 * 1024, &error);
        ASSERT_TRUE(volume_) << error;
    }

    // The names in the volume's root other than lost+found.
    std::vector<std::string> rootEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(volume_->mountPoint())) {
            const auto name = entry.path().filename().string();
            if (name != "lost+found") names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    testing::ProcessResult bench(std::vector<std::string> arguments) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "bench", volume_->mountPoint()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return testing::runProcess(argv, kEnglish);
    }

    std::unique_ptr<LoopVolume> volume_;
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
};

TEST_F(BenchmarkOnLoopVolume, CommandRunsTheFourPhasesAndLeavesOnlyTheReport) {
    const std::uint64_t payload = 40'000'000;
    const auto run = bench({"--json", "--payload-bytes", std::to_string(payload), "--random-seconds", "0.3"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto result = json::parse(run.out);

    EXPECT_EQ(result["actualByteCount"], payload);
    EXPECT_GT(result["randomOperationCount"].get<std::int64_t>(), 0);
    EXPECT_GT(result["writeThroughput"].get<double>(), 0);
    EXPECT_GT(result["readThroughput"].get<double>(), 0);
    std::vector<std::string> phases;
    for (const auto& phase : result["phases"]) phases.push_back(phase["phase"]);
    EXPECT_EQ(phases, (std::vector<std::string>{"randomWrite", "randomRead", "sequentialWrite", "sequentialRead"}));
    // The sequential write was flushed, so all of it reached the loop device.
    EXPECT_GE(result["phases"][2]["deviceBytes"].get<std::uint64_t>(), payload);
    EXPECT_EQ(result["phases"][2]["bytesMoved"], payload);

    // The report is the only file left, in the volume's root.
    const std::string reportPath = result["reportPath"];
    EXPECT_EQ(fs::path(reportPath).parent_path(), fs::path(volume_->mountPoint()));
    EXPECT_EQ(rootEntries(), std::vector<std::string>{fs::path(reportPath).filename().string()});
    EXPECT_NE(run.err.find("Performance test finished. Report automatically saved to: " + reportPath), std::string::npos);
}

TEST_F(BenchmarkOnLoopVolume, CommandFailuresNameTheirCause) {
    struct Case {
        const char* name;
        const char* arrange;  // a shell command, "{}" standing for the volume's folder
        const char* payload;
        const char* message;
    };
    const Case cases[] = {
        {"full", "fallocate -l $(( $(stat -f -c '%a * %S' {0}) - 1000000 )) {0}/filler", "20000000",
         "Not enough free space to run the performance test. The test needs 20 MB, but only "},
        {"no inode left", "i=0; while : > {0}/$i 2>/dev/null; do i=$((i + 1)); done", "1000000",
         "Failed to create the temporary test file. No space left on device.\n"},
        {"read-only", "mount -o remount,ro {0}", "1000000", "Failed to create the temporary test file. Read-only file system.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        volume_ = LoopVolume::create("VTXBENCH", 96ull * 1024 * 1024, &error);
        ASSERT_TRUE(volume_) << error;
        testing::runShell(fmt::format(fmt::runtime(c.arrange), volume_->mountPoint()));
        const auto before = rootEntries();
        const auto run = bench({"--payload-bytes", c.payload, "--random-seconds", "0.1"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(rootEntries(), before);
    }
}

// Unmounted lazily, a volume keeps working for the descriptors open on it while its path leads to
// the folder underneath: the test notices, removes its file through its descriptor and writes
// nothing underneath.
TEST_F(BenchmarkOnLoopVolume, AVolumeUnmountedDuringTheTestFailsItAndNothingLandsUnderneath) {
    auto run = testing::RunningProcess::start({VANTORIX_CLI_PATH, "bench", volume_->mountPoint(), "--payload-bytes",
                                               "20000000", "--random-seconds", "30"},
                                              kEnglish);
    ASSERT_TRUE(run);
    // The random phases have begun once their file is there.
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (rootEntries().empty() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(10ms);
    ASSERT_FALSE(rootEntries().empty()) << run->standardError();
    ASSERT_EQ(testing::runShell("umount -l " + volume_->mountPoint()).exitStatus, 0);
    EXPECT_EQ(run->waitForExit(60s), 1);
    EXPECT_NE(run->standardError().find("The volume was unmounted or removed; the test cannot go on.\n"), std::string::npos)
        << run->standardError();
    EXPECT_TRUE(fs::is_empty(volume_->mountPoint()));
    // Mounted again, the volume holds nothing either.
    ASSERT_EQ(testing::runShell("mount " + volume_->device() + " " + volume_->mountPoint()).exitStatus, 0);
    EXPECT_TRUE(rootEntries().empty());
}

TEST_F(BenchmarkOnLoopVolume, InterruptedCommandRemovesItsFiles) {
    const auto run = testing::runShell("LANGUAGE=en_US timeout --preserve-status -s INT 1.5 " +
                                       std::string(VANTORIX_CLI_PATH) + " bench " + volume_->mountPoint() +
                                       " --payload-bytes 20000000 --random-seconds 30");
    EXPECT_EQ(run.exitStatus, 130) << run.err;
    EXPECT_NE(run.err.find("Performance test stopped; its test files were removed."), std::string::npos) << run.err;
    EXPECT_TRUE(rootEntries().empty());
}

TEST_F(BenchmarkOnLoopVolume, AStopInEachPhaseOfEachModeLeavesNoFileAndNoResult) {
    LinuxVolumeInfoSource volumes;
    SysfsBlockDevices devices;
    const auto descriptor = DiskVolumeResolver::resolve(volume_->mountPoint(), volumes, devices);
    ASSERT_TRUE(descriptor.ok());
    DiskPerformanceTester::Parameters parameters;
    parameters.randomPhaseDuration = 0.2;
    parameters.payloadBytes = 32'000'000;
    struct Case {
        TestMode mode;
        std::optional<BenchmarkPhase> phase;  // the standard test's phase to stop in
        std::string step;                     // or the queue-depth test's step
    };
    std::vector<Case> cases;
    for (const bool direct : {false, true}) {
        for (const auto phase : kBenchmarkPhases) cases.push_back({TestMode{TestKind::standard, direct, 5}, phase, ""});
    }
    // At least four steps of 0.5 s follow each of these before the test would end.
    for (const char* step : {"Preparing the test file", "SEQ1M Q1T1 Read", "SEQ1M Q8T1 Write"}) {
        cases.push_back({TestMode{TestKind::queueDepth, true, 0.5}, std::nullopt, step});
    }
    testing::ScopedLanguage english("en_US.UTF-8");
    const log::Capture capture;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.phase ? rawValue(*c.phase) + (c.mode.bypassCache ? " direct" : "") : c.step);
        auto tester = DiskPerformanceTester::create({main_, std::make_shared<PosixFileSystem>()}, parameters);
        tester->setTestMode(c.mode);
        bool stopped = false;
        // The standard test's thread waits in the phase's start until the stop has been made.
        tester->setPhaseObserver({[&](BenchmarkPhase started) {
                                      if (started != c.phase) return;
                                      std::promise<void> done;
                                      main_->post([&] {
                                          stopped = true;
                                          tester->stopTest();
                                          done.set_value();
                                      });
                                      done.get_future().wait();
                                  },
                                  {}});
        const auto subscription = tester->subscribe([&](const DiskPerformanceTester::State& state) {
            if (stopped || c.step.empty() || !state.progressState || state.progressState->stepName != c.step) return;
            stopped = true;
            main_->post([&] { tester->stopTest(); });
        });
        tester->runTest(descriptor.value());
        ASSERT_TRUE(main_->runUntil([&] { return !tester->state().isRunning; }, 60s));
        tester->waitForBackgroundWork();
        main_->drain();
        EXPECT_TRUE(stopped);
        EXPECT_FALSE(tester->state().lastResult);
        EXPECT_EQ(tester->state().errorMessage.value_or(""), "")
            << fmt::format("{}", fmt::join(capture.messages("DiskPerformanceTester"), "\n"));
        EXPECT_FALSE(tester->state().automaticReportMessage);
        EXPECT_TRUE(rootEntries().empty());
    }
}

TEST_F(BenchmarkOnLoopVolume, BypassingTheCacheTheDeviceSeesWhatEachPhaseMoved) {
    const auto run = bench({"--json", "--direct", "--payload-bytes", "40000000", "--random-seconds", "0.3"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto result = json::parse(run.out);
    EXPECT_EQ(result["mode"]["bypassCache"], true);
    EXPECT_EQ(result["actualByteCount"], 40'000'000 / 4096 * 4096);
    ASSERT_EQ(result["phases"].size(), 4U);
    for (const auto& phase : result["phases"]) {
        SCOPED_TRACE(phase.dump());
        const double moved = phase["bytesMoved"].get<double>();
        EXPECT_GT(moved, 0);
        EXPECT_NEAR(phase["deviceBytes"].get<double>(), moved, moved * 0.01);
    }
    EXPECT_EQ(run.err.find("page cache"), std::string::npos) << run.err;
    EXPECT_EQ(rootEntries().size(), 1U);
}

TEST_F(BenchmarkOnLoopVolume, QueueDepthProfilesRunOnIoUring) {
    const auto run = bench({"--json", "--profile", "deep", "--seconds", "0.2", "--payload-bytes", "33554432"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto result = json::parse(run.out);
    EXPECT_EQ(result["mode"]["kind"], "queueDepth");
    std::vector<std::string> profiles;
    for (const auto& figure : result["queueDepth"]) {
        profiles.push_back(figure["profile"]);
        for (const char* key : {"readBytesPerSecond", "readIOPS", "writeBytesPerSecond", "writeIOPS"}) {
            EXPECT_GT(figure[key].get<double>(), 0) << figure.dump();
        }
    }
    EXPECT_EQ(profiles, (std::vector<std::string>{"SEQ1M Q8T1", "SEQ1M Q1T1", "RND4K Q32T1", "RND4K Q1T1"}));
    EXPECT_EQ(rootEntries().size(), 1U);
}

TEST(BenchmarkOnMemory, AFileSystemInMemoryRefusesToBypassTheCache) {
    char folder[] = "/tmp/vantorix-tmpfs-XXXXXX";
    ASSERT_NE(::mkdtemp(folder), nullptr);
    if (testing::runShell(std::string("mount -t tmpfs -o size=64m tmpfs ") + folder).exitStatus != 0) {
        ::rmdir(folder);
        GTEST_SKIP() << "cannot mount tmpfs";
    }
    for (const std::vector<std::string>& mode : {std::vector<std::string>{"--direct"},
                                                 std::vector<std::string>{"--profile", "deep"}}) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "bench", folder, "--payload-bytes", "8388608", "--seconds", "0.1"};
        argv.insert(argv.end(), mode.begin(), mode.end());
        const auto run = testing::runProcess(argv, kEnglish);
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_NE(run.err.find("This file system cannot bypass the cache (it refuses direct I/O or keeps its files in "
                               "memory), so a cache-bypass test cannot run on it."),
                  std::string::npos)
            << run.err;
        EXPECT_TRUE(fs::is_empty(folder));
    }
    testing::runShell(std::string("umount ") + folder);
    ::rmdir(folder);
}

}  // namespace
}  // namespace vantorix
