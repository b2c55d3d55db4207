#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <thread>

#include "monitor/DiskIOMonitor.h"
#include "platform/linux/LinuxVolumeInfoSource.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "support/BlockDevice.h"
#include "support/LoopVolume.h"
#include "support/ManualMainExecutor.h"
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
        if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
        std::string error;
        volume_ = LoopVolume::create("VTX\xffMON", 160ull << 20, &error, "mnt\xff");  // for 64 MiB written
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

    std::unique_ptr<LoopVolume> volume_;
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<DiskIOMonitor> monitor_;
};

// Monitors while 64 MiB are written with O_DIRECT, changing the precision halfway; then, monitoring
// again, the device goes.
TEST_F(MonitorOnLoopVolume, SamplesAddUpToTheDeviceCountersAndARemovedDeviceEndsTheRun) {
    testing::ScopedLanguage english("en_US.UTF-8");
    monitor_->setSamplingPrecision(Precision::ms100);
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
    monitor_->setSamplingPrecision(Precision::ms10);
    writer.join();
    waitUntilQuiet(volume_->deviceName());
    const auto written = bytesWrittenOf(volume_->deviceName()) - before;
    // Until the monitor has caught up with the device.
    EXPECT_TRUE(runUntil([&] { return state().totalWriteBytes >= written; }));
    monitor_->stopMonitoring(true);
    ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
    main_->drain();
    EXPECT_FALSE(state().errorMessage) << *state().errorMessage;
    EXPECT_EQ(state().samplingPrecision, Precision::ms10);
    EXPECT_EQ(sumWrites(state()), written);
    EXPECT_EQ(state().totalWriteBytes, written);
    EXPECT_GE(written, 64u << 20);

    monitor_->startMonitoring();
    ASSERT_TRUE(runUntil([&] { return state().isMonitoring && state().samples.size() >= 5; }));
    ASSERT_TRUE(volume_->removeDevice());
    ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
    main_->drain();
    EXPECT_EQ(state().errorMessage, "Unable to fetch statistics for the selected volume.");
    EXPECT_GE(state().samples.size(), 5u);
    EXPECT_EQ(state().totalWriteBytes, sumWrites(state()));
}

// One line a second, then on Ctrl-C the summary of the whole run, valid JSON with U+FFFD for the
// bytes of the label and folder that are not UTF-8.
TEST_F(MonitorOnLoopVolume, CommandLinePrintsALineASecondAndOnInterruptASummary) {
    auto run = testing::RunningProcess::start({VANTORIX_CLI_PATH, "monitor", volume_->mountPoint(), "--precision", "10", "--json"});
    for (int second = 0; second < 2; ++second) {
        const auto line = run->readLine(30s);
        ASSERT_TRUE(line) << run->standardError();
        EXPECT_TRUE(json::parse(*line).contains("writeSpeed")) << *line;
    }
    run->signal(SIGINT);
    std::string last;
    while (const auto line = run->readLine(30s)) last = *line;
    EXPECT_EQ(run->waitForExit(30s), 130);
    const auto summary = json::parse(last)["summary"];
    EXPECT_EQ(summary["device"], volume_->deviceName());
    EXPECT_EQ(summary["displayName"], "VTX\uFFFDMON");
    EXPECT_EQ(summary["url"], volume_->mountPoint().substr(0, volume_->mountPoint().size() - 1) + "\uFFFD");
    EXPECT_EQ(summary["precisionMilliseconds"], 10);
    EXPECT_GE(summary["samples"].get<int>(), 100);
    EXPECT_EQ(summary["historyWriteBytes"], summary["totalWriteBytes"]);
}

}  // namespace
}  // namespace vantorix
