#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
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

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::LoopVolume;
using testing::runShell;
using json = nlohmann::json;
using Precision = DiskIOMonitor::SamplingPrecision;

testing::ProcessResult cli(const std::vector<std::string>& args, const std::string& language = "en_US") {
    std::vector<std::string> argv{VANTORIX_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {{"LANGUAGE", language}, {"LC_ALL", std::nullopt}, {"LANG", "en_US.UTF-8"}});
}

// The capacities as statvfs gives them (what df shows).
void expectCapacitiesOf(const std::string& path, const json& info) {
    struct statvfs vfs {};
    ASSERT_EQ(::statvfs(path.c_str(), &vfs), 0);
    EXPECT_EQ(info["totalCapacityBytes"].get<std::uint64_t>(), std::uint64_t{vfs.f_blocks} * vfs.f_frsize);
    // Free space moves while the system runs: allow a little drift between the two readings.
    EXPECT_NEAR(info["availableCapacityBytes"].get<double>(), double(vfs.f_bavail) * double(vfs.f_frsize), 64 << 20);
}

TEST(VolumeInfoIntegration, RootAgreesWithFindmntStatvfsAndTheDeviceCounters) {
    std::istringstream findmnt(runShell("findmnt -n -o SOURCE,FSTYPE -T /").out);
    std::string source, type;
    findmnt >> source >> type;
    const std::string deviceName = source.substr(source.rfind('/') + 1);
    const bool isBlock = fs::exists("/sys/class/block/" + deviceName + "/stat");
    const auto before = isBlock ? testing::deviceCounters(deviceName) : std::array<std::uint64_t, 4>{};
    const auto run = cli({"info", "/", "--json"});
    const auto after = isBlock ? testing::deviceCounters(deviceName) : std::array<std::uint64_t, 4>{};
    const auto info = json::parse(run.out);
    EXPECT_EQ(info["device"], deviceName);
    std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    EXPECT_EQ(info["fileSystemDescription"], type);
    EXPECT_EQ(info["url"], "/");
    expectCapacitiesOf("/", info);
    if (!isBlock) GTEST_SKIP() << "/ is on " << source << ", not a block device: no counters to compare";
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto& stats = info["statistics"];
    const std::array<std::uint64_t, 4> read{stats["bytesRead"], stats["bytesWritten"], stats["readOperations"],
                                            stats["writeOperations"]};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_LE(before[i], read[i]) << i;
        EXPECT_LE(read[i], after[i]) << i;
    }
}

// A volume whose label and folders are bytes that are not UTF-8: the JSON stays valid (parsing
// refuses anything else), with U+FFFD where those bytes were.
TEST(VolumeInfoIntegration, InfoOnASubfolderDescribesTheLoopVolume) {
    if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    const auto volume = LoopVolume::create("VTX\xff\xfeTEST", 32ull << 20, &error, "mnt\xff");
    ASSERT_TRUE(volume) << error;
    const auto sub = volume->mountPoint() + "/projects/a\xfe";
    fs::create_directories(sub);

    const auto run = cli({"info", sub, "--json"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto info = json::parse(run.out);
    EXPECT_EQ(info["displayName"], "VTX\uFFFD\uFFFDTEST");
    EXPECT_EQ(info["device"], volume->deviceName());
    const auto& mountPoint = volume->mountPoint();
    EXPECT_EQ(info["url"], mountPoint.substr(0, mountPoint.size() - 1) + "\uFFFD/projects/a\uFFFD");
    EXPECT_EQ(info["fileSystemDescription"], "EXT4");
    expectCapacitiesOf(sub, info);
    EXPECT_EQ(info["connectionTypeDescription"], "Virtual Interface");
    EXPECT_TRUE(info.contains("linkCeiling") && info["linkCeiling"].is_null());  // a loop device has no link
    EXPECT_TRUE(info["statistics"].is_object());

    // The human form in Chinese carries the same facts.
    const auto human = cli({"info", sub}, "zh_CN:en");
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_NE(human.out.find("TEST"), std::string::npos);
    EXPECT_NE(human.out.find("文件系统"), std::string::npos);
    EXPECT_NE(human.out.find(volume->deviceName()), std::string::npos);
}

TEST(VolumeInfoIntegration, VolumesWithoutABlockDeviceResolveButHaveNoStatistics) {
    for (const std::string path : {"/proc", "/dev/shm"}) {
        SCOPED_TRACE(path);
        const auto run = cli({"info", path, "--json"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.err.substr(0, run.err.find('\n')), "Unable to fetch statistics for the selected volume.");
        const auto info = json::parse(run.out);
        EXPECT_TRUE(info["statistics"].is_null());
        EXPECT_EQ(info["error"]["code"], "statisticsUnavailable");
        EXPECT_FALSE(info["device"].get<std::string>().empty());
    }
}

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

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The chart of a run is exported as a CSV and a PNG beside it, or the run says why not (status 1);
// what is not a regular file is never opened for writing and waited on: refused before monitoring
// starts (status 2), or, when it appeared meanwhile, when the export comes.
TEST_F(MonitorOnLoopVolume, CommandLineExportsTheChartOrSaysWhyNot) {
    const std::string dir = fs::path(volume_->mountPoint()).parent_path(), csv = dir + "/run.csv";
    const std::string missing = dir + "/missing/run.csv", fifo = dir + "/fifo.csv";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
        {csv, "10", 0, "CSV saved to: " + csv + "\nPNG saved to: " + dir + "/run.png\n"},
        {missing, "10", 1, "Export failed: Could not write the file “" + missing + "”"},
        {dir + "/short.csv", "1000", 1, "Fewer than 2 samples: the chart was not exported."},
        {fifo, "10", 2, "--csv: Cannot write to " + fifo + ". It is a named pipe (FIFO), not a regular file.\n"},
        {"/dev/null", "10", 2, "--csv: Cannot write to /dev/null. It is a character device, not a regular file.\n"},
    };
    for (const auto& [path, precision, status, message] : cases) {
        const std::string duration = precision == "1000" ? "0.3" : "1.2";
        const auto run = cli({"monitor", volume_->mountPoint(), "--precision", precision, "--duration", duration, "--csv", path});
        EXPECT_EQ(run.exitStatus, status);
        EXPECT_NE((run.out + run.err).find(message), std::string::npos) << run.out << run.err;
    }
    EXPECT_FALSE(fs::exists(dir + "/short.csv"));
    const std::string text = contents(csv);
    EXPECT_EQ(text.substr(0, text.find('\n')),
              "timestamp,elapsed_seconds,read_bytes,write_bytes,read_bytes_per_sec,write_bytes_per_sec");
    // A line for each sample: about 120, fewer when a loaded machine delays the sampling timer.
    EXPECT_GE(std::count(text.begin(), text.end(), '\n'), 50);
    // A PNG of 3840 × 2160: its signature, then the width and height of its header, big-endian.
    EXPECT_EQ(contents(dir + "/run.png").substr(0, 24), std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x0f\x00\0\0\x08\x70", 24));

    const std::string later = dir + "/later.csv";
    auto running = testing::RunningProcess::start(
        {VANTORIX_CLI_PATH, "monitor", volume_->mountPoint(), "--precision", "10", "--duration", "2", "--json", "--csv", later},
        {{"LANGUAGE", "en_US"}, {"LC_ALL", std::nullopt}});
    ASSERT_TRUE(running->readLine(20s));
    ASSERT_EQ(::mkfifo(later.c_str(), 0600), 0);
    EXPECT_EQ(running->waitForExit(30s), 1);
    EXPECT_NE(running->standardError().find("“" + later + "”: It is a named pipe (FIFO), not a regular file"), std::string::npos)
        << running->standardError();
}

}  // namespace
}  // namespace vantorix
