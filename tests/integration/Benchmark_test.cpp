#include <gtest/gtest.h>

#include <fmt/format.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "support/LoopVolume.h"
#include "support/Process.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::LoopVolume;
using json = nlohmann::json;
namespace fs = std::filesystem;

const std::map<std::string, std::optional<std::string>> kEnglish{
    {"LANGUAGE", "en_US"},
    {"LC_ALL", std::nullopt},
    {"VANTORIX_LOG", "off"},
    {"VANTORIX_HELPER_SOCKET", "/nonexistent/vantorix.sock"}};

// Each test writes at most 40 MB at a time on a volume of 96 MiB.
class BenchmarkOnLoopVolume : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
        makeVolume();
    }
    void makeVolume() {
        std::string error;
        volume_ = LoopVolume::create("VTX\377BENCH", 96ull << 20, &error);  // a label byte that is not UTF-8
        ASSERT_TRUE(volume_) << error;
    }

    // The names in the volume's root other than lost+found.
    std::vector<std::string> rootEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(volume_->mountPoint())) {
            if (entry.path().filename() != "lost+found") names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::vector<std::string> benchArguments(const std::vector<std::string>& arguments) const {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "bench", volume_->mountPoint()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return argv;
    }
    testing::ProcessResult bench(const std::vector<std::string>& arguments) const {
        return testing::runProcess(benchArguments(arguments), kEnglish);
    }
    // A test of 32 MiB whose steps would take two minutes each, once its first file is there; its
    // standard output and error come through one pipe.
    std::unique_ptr<testing::RunningProcess> startedBench(const std::string& mode) {
        std::vector<std::string> args{"--payload-bytes", "33554432", "--seconds", "120", "--random-seconds", "120"};
        if (!mode.empty()) args.push_back(mode);
        auto run = testing::RunningProcess::start(benchArguments(args), kEnglish, /*errorsToOutput=*/true);
        EXPECT_TRUE(testing::eventually(
            [&] {
                run->readLine(10ms);
                return !rootEntries().empty();
            },
            60s));
        return run;
    }

    std::unique_ptr<LoopVolume> volume_;
};

TEST_F(BenchmarkOnLoopVolume, EachModeRunsToItsFiguresAndLeavesOnlyTheReport) {
    const std::uint64_t payload = 40'000'000;
    for (const std::string mode : {"", "--direct", "--profile=deep"}) {
        SCOPED_TRACE(mode);
        std::vector<std::string> arguments{
            "--json", "--payload-bytes", std::to_string(payload), "--seconds", "0.2", "--random-seconds", "0.3"};
        if (!mode.empty()) arguments.push_back(mode);
        const auto run = bench(arguments);
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        const auto result = json::parse(run.out);  // valid JSON, the label's byte shown as U+FFFD
        EXPECT_EQ(result["volume"]["displayName"], "VTX\uFFFDBENCH");
        // The report is the only file left, in the volume's root, and the run says where.
        const fs::path report = result["reportPath"].get<std::string>();
        EXPECT_EQ(report.parent_path(), fs::path(volume_->mountPoint()));
        EXPECT_EQ(rootEntries(), std::vector<std::string>{report.filename()});
        EXPECT_NE(run.err.find(report.string()), std::string::npos) << run.err;
        fs::remove(report);
        if (mode == "--profile=deep") {  // on io_uring
            std::vector<std::string> profiles;
            for (const auto& figure : result["queueDepth"]) {
                profiles.push_back(figure["profile"]);
                for (const char* key : {"readBytesPerSecond", "readIOPS", "writeBytesPerSecond", "writeIOPS"}) {
                    EXPECT_GT(figure[key].get<double>(), 0) << figure.dump();
                }
            }
            EXPECT_EQ(profiles, (std::vector<std::string>{"SEQ1M Q8T1", "SEQ1M Q1T1", "RND4K Q32T1", "RND4K Q1T1"}));
            continue;
        }
        std::vector<std::string> phases;
        for (const auto& phase : result["phases"]) {
            phases.push_back(phase["phase"]);
            // Bypassing the cache, the device sees what each phase moved.
            const double moved = phase["bytesMoved"].get<double>();
            if (mode == "--direct") {
                EXPECT_NEAR(phase["deviceBytes"].get<double>(), moved, moved * 0.01) << phase.dump();
            }
        }
        EXPECT_EQ(phases, (std::vector<std::string>{"randomWrite", "randomRead", "sequentialWrite", "sequentialRead"}));
        EXPECT_EQ(result["mode"]["bypassCache"], mode == "--direct");
        EXPECT_EQ(result["actualByteCount"], mode == "--direct" ? payload / 4096 * 4096 : payload);
        EXPECT_GT(result["randomOperationCount"].get<std::int64_t>(), 0);
        EXPECT_GT(result["writeThroughput"].get<double>(), 0);
        EXPECT_GT(result["readThroughput"].get<double>(), 0);
        // The sequential write was flushed, so all of it reached the loop device.
        EXPECT_EQ(result["phases"][2]["bytesMoved"], result["actualByteCount"]);
        EXPECT_GE(result["phases"][2]["deviceBytes"], result["actualByteCount"]);
    }
}

TEST_F(BenchmarkOnLoopVolume, CommandFailuresNameTheirCauseAndLeaveNothing) {
    struct Case {
        const char *arrange, *payload, *message;  // arrange: a shell command, "{0}" the volume's folder
    };
    const Case cases[] = {
        {"fallocate -l $(( $(stat -f -c '%a * %S' {0}) - 1000000 )) {0}/filler", "20000000",
         "Not enough free space to run the performance test. The test needs 20 MB, but only "},
        {"i=0; while : > {0}/$i 2>/dev/null; do i=$((i + 1)); done", "1000000", "No space left on device.\n"},
        {"mount -o remount,ro {0}", "1000000", "Failed to create the temporary test file. Read-only file system.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arrange);
        makeVolume();
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
    const auto run = startedBench("");
    ASSERT_EQ(testing::runShell("umount -l " + volume_->mountPoint()).exitStatus, 0);
    std::string output;
    while (const auto line = run->readLine(60s)) output += *line + "\n";
    EXPECT_EQ(run->waitForExit(60s), 1);
    EXPECT_NE(output.find("The volume was unmounted or removed; the test cannot go on."), std::string::npos) << output;
    EXPECT_TRUE(fs::is_empty(volume_->mountPoint()));
    // Mounted again, the volume holds nothing either.
    ASSERT_EQ(testing::runShell("mount " + volume_->device() + " " + volume_->mountPoint()).exitStatus, 0);
    EXPECT_TRUE(rootEntries().empty());
}

// Every signal a session sends, and a reader that goes away, stop a running performance test of
// any mode the way Ctrl-C does: the test files are removed before the program ends with 128 + the
// signal.
TEST_F(BenchmarkOnLoopVolume, EverySignalStopsTheCommandAndRemovesItsFiles) {
    const std::pair<int, const char*> cases[] = {{SIGHUP, "--direct"},
                                                 {SIGQUIT, "--profile=deep"},
                                                 {SIGTERM, ""},
                                                 {SIGINT, "--profile=deep"},
                                                 {SIGPIPE, "--direct"}};
    for (const auto& [signal, mode] : cases) {
        SCOPED_TRACE(strsignal(signal));
        const auto run = startedBench(mode);
        // Sent twice at once, as `timeout` and service managers do (to the process and to its group).
        if (signal == SIGPIPE) {
            run->closeOutput();
        } else {
            run->signal(signal);
            run->signal(signal);
        }
        EXPECT_EQ(run->waitForExit(60s), 128 + signal);
        EXPECT_EQ(rootEntries(), std::vector<std::string>{});
    }
}

TEST_F(BenchmarkOnLoopVolume, AFileSystemInMemoryRefusesToBypassTheCache) {
    const std::string folder = volume_->mountPoint() + "/memory";
    fs::create_directory(folder);
    ASSERT_EQ(testing::runShell("mount -t tmpfs -o size=64m tmpfs " + folder).exitStatus, 0);
    for (const char* mode : {"--direct", "--profile=deep"}) {
        const auto run = testing::runProcess(
            {VANTORIX_CLI_PATH, "bench", folder, "--payload-bytes", "8388608", "--seconds", "0.1", mode}, kEnglish);
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_NE(run.err.find("so a cache-bypass test cannot run on it."), std::string::npos) << run.err;
        EXPECT_TRUE(fs::is_empty(folder));
    }
    EXPECT_EQ(testing::runShell("umount " + folder).exitStatus, 0);
}

}  // namespace
}  // namespace vantorix
