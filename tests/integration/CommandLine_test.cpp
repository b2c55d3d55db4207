#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
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
using json = nlohmann::json;
using Precision = DiskIOMonitor::SamplingPrecision;

testing::ProcessResult cli(const std::vector<std::string>& args, const std::string& language = "en_US") {
    std::vector<std::string> argv{VANTORIX_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {{"LANGUAGE", language},
                                      {"LC_ALL", std::nullopt},
                                      {"LANG", "C.UTF-8"},
                                      {"VANTORIX_SERVICE_URL", std::nullopt}});
}

// Help, in the user's language; a stock build names no web service, so updates are the package
// manager's.
TEST(CommandLine, HelpOfEveryCommandIsInTheUsersLanguage) {
    for (const std::string command :
         {"", "info", "monitor", "bench", "smart", "helper", "check-update", "feedback", "serve"}) {
        SCOPED_TRACE(command);
        std::vector<std::string> args{"--help"};
        if (!command.empty()) args.insert(args.begin(), command);
        const auto chinese = cli(args, "zh_CN");
        EXPECT_EQ(chinese.exitStatus, 0);
        EXPECT_NE(chinese.out.find("\n用法：vantorix-cli" + (command.empty() ? "" : " " + command) + " [选项]"),
                  std::string::npos)
            << chinese.out;
        EXPECT_NE(chinese.out.find("\n选项：\n  -h,--help                   显示此帮助信息并退出\n"),
                  std::string::npos);
        for (const char* word : {"Usage", "Options", "Positionals", "Subcommands", "REQUIRED", "OPTIONS", "Print"}) {
            EXPECT_EQ(chinese.out.find(word), std::string::npos) << word << "\n" << chinese.out;
        }
        const std::string english = "\nOptions:\n  -h,--help                   Print this help message and exit\n";
        EXPECT_NE(cli(args, "en_US").out.find(english), std::string::npos);
    }
    EXPECT_NE(cli({"--help"}, "zh_CN").out.find("\n子命令：\n  info "), std::string::npos);
    EXPECT_NE(cli({"info", "--help"}, "zh_CN").out.find("\n位置参数：\n  path TEXT 必需"), std::string::npos);
    if (std::string_view(VANTORIX_BUILT_SERVICE_URL).empty()) {
        EXPECT_EQ(cli({"check-update"}, "zh_CN").out, "此版本通过系统的软件包管理器更新。\n");
    }
}

// Refused arguments: exit status 2, nothing on standard output, and one short line in the user's
// language (no 309-digit bound for a hostile number), then where to find help.
TEST(CommandLine, RefusedArgumentsSayWhyInOneShortLine) {
    const std::string help = "\nRun with --help for more information.\n";
    const std::string zhHelp = "\n运行时加上 --help 可查看更多信息。\n";
    std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
        {{}, "zh_CN", "需要一个子命令" + zhHelp},
        {{"info", "a", "b"}, "zh_CN", "多余的参数：b" + zhHelp},
        {{"info", "a", "b"}, "en_US", "The following argument was not expected: b" + help},
        {{"info"}, "zh_CN", "缺少必需的参数：path" + zhHelp},
        {{"monitor", "x", "--precision", "3"}, "zh_CN", "--precision：3 不是可选的值之一：{1,10,100,1000}" + zhHelp},
        {{"bench", "x", "--seconds", "0"}, "zh_CN", "--seconds：应为 0.1 到 3600 之间的秒数，而不是 0" + zhHelp},
        {{"serve", "--listen"}, "zh_CN", "--listen：缺少 1 个 TEXT 值" + zhHelp},
        {{"smart", "x", "--json-file", "y"}, "zh_CN", "path 不能与 --json-file 一起使用" + zhHelp},
        {{"monitor", "/", "--duration", "1e308"},
         "en_US",
         "--duration: must be a number of seconds greater than 0 and at most 31536000, not 1e308" + help},
    };
    for (const auto& [command, option, number] :
         std::vector<std::array<std::string, 3>>{{"monitor", "--duration", "nan"},
                                                 {"monitor", "--duration", "inf"},
                                                 {"monitor", "--duration", "0"},
                                                 {"monitor", "--duration", "-1"},
                                                 {"bench", "--random-seconds", "1e308"},
                                                 {"bench", "--seconds", "nan"},
                                                 {"bench", "--random-seconds", "nan"},
                                                 {"bench", "--payload-bytes", "0"},
                                                 {"bench", "--payload-bytes", "-1"},
                                                 {"bench", "--payload-bytes", "99999999999999999999999"}}) {
        cases.push_back({{command, "/", option, number}, "en_US", option + ": must be "});
    }
    for (const auto& [args, language, error] : cases) {
        const auto result = cli(args, language);
        SCOPED_TRACE(result.err);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind(error, 0), 0u);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2);
        EXPECT_LT(result.err.size(), 160u);
    }
}

// A path that leads to no volume: the fixed sentence, then why, in the user's language, and
// nothing on standard output; with --json, one error object there instead, the same from every
// command, its message the one on standard error.
TEST(CommandLine, APathThatLeadsNowhereSaysWhy) {
    const auto dir = fs::temp_directory_path() / ("vantorix-paths-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    fs::create_symlink(dir / "b", dir / "a");
    fs::create_symlink(dir / "a", dir / "b");
    testing::runShell("touch " + (dir / "file").string());
    const std::string sentence = "Failed to find the block device of the selected path. ";
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"/nonexistent/vantorix", "en_US", sentence + "No such file or folder.\n"},
        {"/nonexistent/vantorix", "zh_CN", "无法找到所选路径对应的块设备。没有这个文件或文件夹。\n"},
        {"/tmp/" + std::string(300, 'a'), "en_US", sentence + "File name or path too long.\n"},
        {(dir / "a").string(), "en_US", sentence + "Too many levels of symbolic links (a link loop?).\n"},
        {(dir / "file" / "x").string(), "en_US", sentence + "A part of the path is not a folder.\n"},
        {"", "zh_CN", "请选择一个有效的卷。\n"},
        {"ftp://host/x", "en_US", "Please select a valid volume.\n"},
    };
    for (const auto& [path, language, message] : cases) {
        const auto result = cli({"info", path}, language);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, message);
    }
    fs::remove_all(dir);
    std::set<std::string> errors;
    for (const std::string command : {"info", "monitor", "bench"}) {
        const auto result = cli({command, "/nonexistent/vantorix-\xff", "--json"}, "en_US");
        EXPECT_EQ(result.exitStatus, 1);
        const auto document = json::parse(result.out);
        ASSERT_EQ(document.size(), 1u);
        ASSERT_EQ(document["error"].size(), 2u);
        EXPECT_TRUE(std::regex_match(document["error"]["code"].get<std::string>(), std::regex("[a-z][A-Za-z]+")));
        EXPECT_EQ(result.err, document["error"]["message"].get<std::string>() + "\n");
        errors.insert(document["error"]["code"].get<std::string>());
    }
    EXPECT_EQ(errors.size(), 1u);
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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

    const auto before = testing::deviceCounters(volume->deviceName());
    const auto run = cli({"info", sub, "--json"});
    const auto after = testing::deviceCounters(volume->deviceName());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto info = json::parse(run.out);
    EXPECT_EQ(info["displayName"], "VTX\uFFFD\uFFFDTEST");
    EXPECT_EQ(info["device"], volume->deviceName());
    const auto& mountPoint = volume->mountPoint();
    EXPECT_EQ(info["url"], mountPoint.substr(0, mountPoint.size() - 1) + "\uFFFD/projects/a\uFFFD");
    EXPECT_EQ(info["fileSystemDescription"], "EXT4");
    struct statvfs vfs {};  // what df shows
    ASSERT_EQ(::statvfs(sub.c_str(), &vfs), 0);
    EXPECT_EQ(info["totalCapacityBytes"].get<std::uint64_t>(), std::uint64_t{vfs.f_blocks} * vfs.f_frsize);
    EXPECT_EQ(info["availableCapacityBytes"].get<std::uint64_t>(), std::uint64_t{vfs.f_bavail} * vfs.f_frsize);
    EXPECT_EQ(info["connectionTypeDescription"], "Virtual Interface");
    EXPECT_TRUE(info.contains("linkCeiling") && info["linkCeiling"].is_null());  // a loop device has no link
    // The loop driver's queue: the kernel's own files say what it is.
    const std::string queue = "/sys/class/block/" + volume->deviceName() + "/queue/";
    EXPECT_EQ(info["queue"]["requests"], std::stoull(contents(queue + "nr_requests")));
    EXPECT_EQ(info["queue"]["rotational"], contents(queue + "rotational").front() == '1');
    EXPECT_EQ(info["queue"]["hardwareQueues"], 1);
    const auto& stats = info["statistics"];
    const std::array<std::uint64_t, 4> read{stats["bytesRead"], stats["bytesWritten"], stats["readOperations"],
                                            stats["writeOperations"]};
    for (std::size_t i = 0; i < 4; ++i) EXPECT_TRUE(before[i] <= read[i] && read[i] <= after[i]) << i;

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
        // Nor a drive to keep test results for.
        const auto history = cli({"bench", path, "--history", "--json"});
        EXPECT_EQ(history.exitStatus, 1);
        EXPECT_EQ(json::parse(history.out)["error"]["code"], "noDrive") << history.out;
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
    const auto writesBefore = testing::deviceCounters(volume_->deviceName())[3];
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
    // The request counters add up the same way, and the run's figures come from them.
    EXPECT_EQ(state().totalLoad.writesCompleted, testing::deviceCounters(volume_->deviceName())[3] - writesBefore);
    const auto load = loadFigures(state().totalLoad);
    EXPECT_TRUE(load.writeAwaitMilliseconds && *load.writeAwaitMilliseconds > 0);
    EXPECT_TRUE(load.utilization && *load.utilization > 0 && *load.utilization <= 1);

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
    auto run = testing::RunningProcess::start(
        {VANTORIX_CLI_PATH, "monitor", volume_->mountPoint(), "--precision", "10", "--json"});
    for (int second = 0; second < 2; ++second) {
        const auto line = run->readLine(30s);
        ASSERT_TRUE(line) << run->standardError();
        const auto figures = json::parse(*line);
        EXPECT_TRUE(figures.contains("writeSpeed")) << *line;
        // A second without a completed read has no read await, which is not a zero.
        EXPECT_EQ(figures["readAwaitMs"].is_null(), figures["readOperationsRate"] == 0) << *line;
        EXPECT_TRUE(figures["utilization"].is_number() && figures["inFlight"].is_number()) << *line;
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

// The chart of a run is exported as a CSV, a PNG and a latency CSV beside it, or the run says why
// not (status 1); what is not a regular file is never opened for writing and waited on: refused
// before monitoring starts (status 2), or, when it appeared meanwhile, when the export comes.
TEST_F(MonitorOnLoopVolume, CommandLineExportsTheChartOrSaysWhyNot) {
    const std::string dir = fs::path(volume_->mountPoint()).parent_path(), csv = dir + "/run.csv";
    const std::string missing = dir + "/missing/run.csv", fifo = dir + "/fifo.csv";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
        {csv, "10", 0,
         "CSV saved to: " + csv + "\nPNG saved to: " + dir + "/run.png\nLatency CSV saved to: " + dir +
             "/run-latency.csv\n"},
        {missing, "10", 1, "Export failed: Could not write the file “" + missing + "”"},
        {dir + "/short.csv", "1000", 1, "Fewer than 2 samples: the chart was not exported."},
        {fifo, "10", 2, "--csv: Cannot write to " + fifo + ". It is a named pipe (FIFO), not a regular file.\n"},
        {"/dev/null", "10", 2, "--csv: Cannot write to /dev/null. It is a character device, not a regular file.\n"},
    };
    for (const auto& [path, precision, status, message] : cases) {
        const auto run = cli({"monitor", volume_->mountPoint(), "--precision", precision, "--duration",
                              precision == "1000" ? "0.3" : "1.2", "--csv", path});
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
    const std::string header("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x0f\x00\0\0\x08\x70", 24);
    EXPECT_EQ(contents(dir + "/run.png").substr(0, 24), header);
    const std::string latency = contents(dir + "/run-latency.csv");
    EXPECT_EQ(std::count(latency.begin(), latency.end(), '\n'), std::count(text.begin(), text.end(), '\n'));
    const std::string later = dir + "/later.csv";
    auto running = testing::RunningProcess::start({VANTORIX_CLI_PATH, "monitor", volume_->mountPoint(), "--precision",
                                                   "10", "--duration", "2", "--json", "--csv", later},
                                                  {{"LANGUAGE", "en_US"}, {"LC_ALL", std::nullopt}});
    ASSERT_TRUE(running->readLine(20s));
    ASSERT_EQ(::mkfifo(later.c_str(), 0600), 0);
    EXPECT_EQ(running->waitForExit(30s), 1);
    EXPECT_NE(running->standardError().find("“" + later + "”: It is a named pipe (FIFO), not a regular file"),
              std::string::npos)
        << running->standardError();
}

}  // namespace
}  // namespace vantorix
