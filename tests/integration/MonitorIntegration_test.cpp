#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "support/ManualMainExecutor.h"
#include "monitor/DiskIOMonitor.h"
#include "platform/linux/LinuxVolumeInfoSource.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "support/BlockDevice.h"
#include "support/LoopVolume.h"
#include "support/Process.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::LoopVolume;
using Precision = DiskIOMonitor::SamplingPrecision;
using json = nlohmann::json;

std::uint64_t bytesWrittenOf(const std::string& deviceName) { return testing::deviceCounters(deviceName)[1]; }

// Waits until the device's write counter has not moved for a while, so that a reading taken
// now also holds a moment later.
void waitUntilQuiet(const std::string& deviceName) {
    auto last = bytesWrittenOf(deviceName);
    for (int stable = 0, rounds = 0; stable < 3 && rounds < 100; ++rounds) {
        std::this_thread::sleep_for(100ms);
        const auto now = bytesWrittenOf(deviceName);
        stable = now == last ? stable + 1 : 0;
        last = now;
    }
}

class MonitorOnLoopVolume : public ::testing::Test {
protected:
    void SetUp() override {
        const auto reason = LoopVolume::unavailableReason();
        if (!reason.empty()) GTEST_SKIP() << "loop-device test skipped: " << reason;
        std::string error;
        volume_ = LoopVolume::create("VTXMON", 160ull * 1024 * 1024, &error);
        ASSERT_TRUE(volume_) << error;
        monitor_ = DiskIOMonitor::create(
            {std::make_shared<SysfsBlockDevices>(), std::make_shared<LinuxVolumeInfoSource>(), main_});
    }
    void TearDown() override {
        if (monitor_) {
            monitor_->stopMonitoring(false);
            main_->drain();
        }
    }
    const DiskIOMonitor::State& state() { return monitor_->state(); }
    bool runUntil(const std::function<bool()>& done) { return main_->runUntil(done, 30s); }
    static std::uint64_t sumWrites(const DiskIOMonitor::State& s) {
        std::uint64_t sum = 0;
        for (const auto& sample : s.samples) sum += sample.writeBytes;
        return sum;
    }

    // Monitors while 64 MiB are written with O_DIRECT; `midway` runs on the main thread halfway.
    void monitorAWrite(Precision precision, const std::function<void()>& midway) {
        monitor_->setSamplingPrecision(precision);
        monitor_->selectVolume(volume_->mountPoint());
        ASSERT_TRUE(runUntil([&] { return state().selectedVolume.has_value(); }));
        ASSERT_EQ(state().selectedVolume->deviceName, volume_->deviceName());
        waitUntilQuiet(volume_->deviceName());
        const auto before = bytesWrittenOf(volume_->deviceName());
        monitor_->startMonitoring();
        ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 2; }));

        std::thread writer([&] {
            EXPECT_TRUE(testing::writeDirect(volume_->mountPoint() + "/first.bin", 32));
            EXPECT_TRUE(testing::writeDirect(volume_->mountPoint() + "/second.bin", 32));
        });
        ASSERT_TRUE(runUntil([&] { return state().totalWriteBytes >= 16u << 20; }));
        midway();
        writer.join();
        waitUntilQuiet(volume_->deviceName());
        std::this_thread::sleep_for(3 * DiskIOMonitor::timerInterval(state().samplingPrecision));
        monitor_->stopMonitoring(true);
        ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
        main_->drain();
        const auto after = bytesWrittenOf(volume_->deviceName());

        EXPECT_FALSE(state().errorMessage) << *state().errorMessage;
        EXPECT_EQ(sumWrites(state()), after - before);
        EXPECT_EQ(state().totalWriteBytes, after - before);
        EXPECT_GE(sumWrites(state()), 64u << 20);
    }

    std::unique_ptr<LoopVolume> volume_;
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<DiskIOMonitor> monitor_;
};

TEST_F(MonitorOnLoopVolume, SamplesAddUpToTheDeviceCounters) {
    monitorAWrite(Precision::ms100, [] {});
}

TEST_F(MonitorOnLoopVolume, ChangingThePrecisionMidRunLosesNothing) {
    monitorAWrite(Precision::ms100, [&] { monitor_->setSamplingPrecision(Precision::ms10); });
    EXPECT_EQ(state().samplingPrecision, Precision::ms10);
}

TEST_F(MonitorOnLoopVolume, ARemovedDeviceEndsTheRunWithTheErrorAndKeepsTheSamples) {
    testing::ScopedLanguage english("en_US.UTF-8");
    monitor_->setSamplingPrecision(Precision::ms10);
    monitor_->selectVolume(volume_->mountPoint());
    ASSERT_TRUE(runUntil([&] { return state().selectedVolume.has_value(); }));
    monitor_->startMonitoring();
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 5; }));

    ASSERT_TRUE(volume_->removeDevice());
    ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
    main_->drain();
    EXPECT_EQ(state().errorMessage, "Unable to fetch statistics for the selected volume.");
    EXPECT_GE(state().samples.size(), 5u);
    EXPECT_EQ(state().totalWriteBytes, sumWrites(state()));
}

testing::ProcessResult runCliUntil(const std::vector<std::string>& args, std::chrono::milliseconds interruptAfter) {
    // Runs the CLI and sends it SIGINT after a while (0: never).
    char outPath[] = "/tmp/vantorix-mon-out-XXXXXX";
    const int outFd = ::mkstemp(outPath);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(outFd, 1);
        const int devNull = ::open("/dev/null", O_WRONLY);
        ::dup2(devNull, 2);
        std::vector<std::string> argv{VANTORIX_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> argp;
        for (auto& a : argv) argp.push_back(a.data());
        argp.push_back(nullptr);
        ::execv(argp[0], argp.data());
        ::_exit(127);
    }
    if (interruptAfter.count() > 0) {
        std::this_thread::sleep_for(interruptAfter);
        ::kill(pid, SIGINT);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(outFd);
    testing::ProcessResult result;
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::ifstream in(outPath);
    std::stringstream text;
    text << in.rdbuf();
    result.out = text.str();
    ::unlink(outPath);
    return result;
}

std::vector<json> jsonLines(const std::string& out) {
    std::vector<json> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
    return lines;
}

TEST_F(MonitorOnLoopVolume, CommandLinePrintsALineASecondAndASummary) {
    const auto run = runCliUntil({"monitor", volume_->mountPoint(), "--precision", "10", "--duration", "2.2", "--json"}, 0ms);
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    const auto lines = jsonLines(run.out);
    ASSERT_EQ(lines.size(), 3u) << run.out;  // two one-second lines, then the summary
    EXPECT_TRUE(lines[0].contains("writeSpeed"));
    const auto& summary = lines.back()["summary"];
    EXPECT_EQ(summary["device"], volume_->deviceName());
    EXPECT_EQ(summary["precisionMilliseconds"], 10);
    EXPECT_GE(summary["samples"].get<int>(), 150);
    EXPECT_EQ(summary["historyWriteBytes"], summary["totalWriteBytes"]);
}

TEST_F(MonitorOnLoopVolume, CommandLineStopsOnInterruptWithASummary) {
    const auto run = runCliUntil({"monitor", volume_->mountPoint(), "--precision", "1", "--json"}, 1500ms);
    EXPECT_EQ(run.exitStatus, 130);
    const auto lines = jsonLines(run.out);
    ASSERT_GE(lines.size(), 2u) << run.out;
    EXPECT_TRUE(lines.back().contains("summary"));
    EXPECT_GE(lines.back()["summary"]["samples"].get<int>(), 1000);
}

}  // namespace
}  // namespace vantorix
