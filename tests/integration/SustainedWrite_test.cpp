#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "integration/HelperTestClient.h"
#include "support/BlockThrottle.h"
#include "support/LoopVolume.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using json = nlohmann::json;

constexpr double kFast = 100e6;  // bytes per second before the flip
constexpr double kSlow = 40e6;   // and after it
constexpr std::uint64_t kStep = 268'435'456;

// The throttle drops from fast to slow once 12 s of writing went to the device: the test must put
// the cliff where the device's counters say the drop came, settle on the slow speed, stop early
// once that speed has held, and leave only its report. About 45 s.
TEST(SustainedWriteOnLoopVolume, FindsTheCliffWhereTheThrottleDroppedAndStopsOnceSteady) {
    const std::string reason = testing::LoopVolume::unavailableReason() + testing::BlockThrottle::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    const auto volume = testing::LoopVolume::create("SUSTAINED", 3584ull << 20, &error);
    ASSERT_TRUE(volume) << error;
    auto throttle = testing::BlockThrottle::create(volume->deviceName(), &error);
    ASSERT_TRUE(throttle) << error;
    const std::string group = throttle->path();
    ASSERT_TRUE(throttle->limitWrites(static_cast<std::uint64_t>(kFast)));

    const std::uint64_t before = testing::deviceBytesWritten(volume->deviceName());
    const auto run = testing::RunningProcess::start(
        throttle->joined({VANTORIX_CLI_PATH, "bench", volume->mountPoint(), "--profile", "sustained", "--json",
                          "--payload-bytes", std::to_string(2860ull << 20)}),
        {{"LANGUAGE", "en_US"}, {"VANTORIX_LOG", "off"}, {"VANTORIX_HELPER_SOCKET", "/nonexistent/vantorix.sock"}});
    std::uint64_t flip = 0;
    ASSERT_TRUE(testing::eventually(
        [&] {
            flip = testing::deviceBytesWritten(volume->deviceName()) - before;
            return flip >= static_cast<std::uint64_t>(12 * kFast);
        },
        60s));
    ASSERT_TRUE(throttle->limitWrites(static_cast<std::uint64_t>(kSlow)));

    std::string out;
    while (const auto line = run->readLine(120s)) out += *line;
    ASSERT_EQ(run->waitForExit(10s), 0) << run->standardError();
    const json result = json::parse(out);
    const json& sustained = result["sustained"];
    ASSERT_FALSE(sustained["cliff"].is_null()) << sustained.dump();
    const auto cliff = sustained["cliff"]["bytes"].get<double>();
    RecordProperty("flipBytes", std::to_string(flip));  // the figures beside the test's in its XML output
    RecordProperty("sustained", sustained.dump());
    EXPECT_NEAR(cliff, static_cast<double>(flip), static_cast<double>(kStep)) << sustained.dump();
    EXPECT_NEAR(sustained["cliff"]["speedBefore"].get<double>(), kFast, kFast * 0.1);
    EXPECT_NEAR(sustained["steadyBytesPerSecond"].get<double>(), kSlow, kSlow * 0.1);
    EXPECT_TRUE(sustained["stoppedEarly"].get<bool>());

    const fs::path report = result["reportPath"].get<std::string>();
    auto names = testing::namesIn(volume->mountPoint());
    names.erase("lost+found");
    EXPECT_EQ(names, std::set<std::string>{report.filename()});
    throttle.reset();
    EXPECT_FALSE(fs::exists(group));
}

// Three runs on one volume are recorded for its drive (the loop device's file) and listed in order;
// the third, at half the speed, is flagged as a drop against the second. The drive's temperature
// comes through the real helper (from a stand-in smartctl) beside each point.
TEST(SustainedWriteOnLoopVolume, RunsAreListedInOrderAndAHalvedSpeedIsADrop) {
    const std::string reason = testing::LoopVolume::unavailableReason() + testing::BlockThrottle::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    const auto volume = testing::LoopVolume::create("HISTORY", 512ull << 20, &error);
    ASSERT_TRUE(volume) << error;
    auto throttle = testing::BlockThrottle::create(volume->deviceName(), &error);
    ASSERT_TRUE(throttle) << error;
    const testing::TemporaryFolder folder;
    const std::string database = (folder.path() / "history.sqlite").string();
    auto smartctl = testing::SmartctlStandIn::create(testing::printing(testing::kHelperFixture));  // 36 °C
    const auto helper = testing::startHelper(smartctl->path());
    ASSERT_TRUE(helper);
    const std::map<std::string, std::optional<std::string>> environment{
        {"LANGUAGE", "en_US"}, {"VANTORIX_LOG", "off"}, {"VANTORIX_HELPER_SOCKET", helper->socketPath()}};
    const auto bench = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(),
                         {VANTORIX_CLI_PATH, "bench", volume->mountPoint(), "--json", "--database", database});
        return testing::runProcess(throttle->joined(arguments), environment);
    };
    std::vector<std::string> finished;
    for (const double speed : {80e6, 80e6, 40e6}) {
        ASSERT_TRUE(throttle->limitWrites(static_cast<std::uint64_t>(speed)));
        const auto run = bench({"--profile", "sustained", "--payload-bytes", std::to_string(256ull << 20)});
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        const json result = json::parse(run.out);
        finished.push_back(result["finishedAt"]);
        EXPECT_EQ(result["sustained"]["points"][0]["celsius"], 36) << result["sustained"].dump();
        fs::remove(result["reportPath"].get<std::string>());
        if (speed < 80e6) {
            EXPECT_NE(run.err.find("Warning: Average Write Speed is 5"), std::string::npos) << run.err;
        }
    }
    const auto listed = bench({"--history"});
    ASSERT_EQ(listed.exitStatus, 0) << listed.err;
    const json history = json::parse(listed.out);
    EXPECT_EQ(history["drive"]["key"], "file:" + fs::canonical(volume->backingFile()).string());
    ASSERT_EQ(history["runs"].size(), 3U) << history.dump();
    for (std::size_t i = 0; i < 3; ++i) {
        const json& run = history["runs"][i];
        EXPECT_EQ(run["finishedAt"], finished[i]);
        EXPECT_EQ(run["kind"], "sustainedWrite");
        if (i == 0) {
            EXPECT_TRUE(run["comparison"].is_null());
            continue;
        }
        const json& average = run["comparison"]["changes"][0];
        EXPECT_EQ(average["figure"], "averageWriteThroughput");
        EXPECT_EQ(average["dropped"], i == 2) << average.dump();
        EXPECT_NEAR(average["percent"].get<double>(), i == 2 ? -50 : 0, 10);
    }
    auto names = testing::namesIn(volume->mountPoint());
    names.erase("lost+found");
    EXPECT_TRUE(names.empty());
}

}  // namespace
}  // namespace vantorix
