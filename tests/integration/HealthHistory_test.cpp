#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>

#include "integration/HelperTestClient.h"
#include "support/LoopVolume.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// A drive that warms up while its reallocated sector count goes from 0 to 8, played answer by
// answer through the real helper to `smart --watch`, which records it into a history file.
TEST(HealthHistoryCli, WatchRecordsWhatHistoryShowsAndAcknowledgingResetsTheGrowth) {
    if (const auto reason = testing::LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    const auto volume = testing::LoopVolume::create("vx-health", 16ull << 20, &error);
    ASSERT_TRUE(volume) << error;
    const testing::TemporaryFolder folder;
    json answer = json::parse(
        std::ifstream(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-ata-full.json"));
    std::vector<std::string> sequence;
    for (int step = 0; step < 6; ++step) {
        answer["temperature"]["current"] = 36 + 3 * step;  // a step each time, so each is stored
        for (auto& row : answer["ata_smart_attributes"]["table"]) {
            if (row["id"] == 5) row["raw"]["value"] = step < 3 ? 0 : 8;
        }
        sequence.push_back(folder.string() + "/answer" + std::to_string(step) + ".json");
        std::ofstream(sequence.back()) << answer.dump();
    }
    using Mode = testing::StandInBehaviour::Mode;
    auto standIn = testing::SmartctlStandIn::create({Mode::print, sequence[0], "", 0});
    const auto helper = testing::startHelper(standIn->path());
    ASSERT_TRUE(helper);
    const std::string database = folder.string() + "/data/vantorix/health.sqlite";
    const testing::Environment environment{{"LANGUAGE", "en_US"},
                                           {"VANTORIX_LOG", "off"},
                                           {"XDG_DATA_HOME", folder.string() + "/data"},
                                           {"VANTORIX_HELPER_SOCKET", helper->socketPath()}};
    const auto smart = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {VANTORIX_CLI_PATH, "smart", volume->mountPoint()});
        return testing::runProcess(args, environment);
    };

    auto watch = testing::RunningProcess::start({VANTORIX_CLI_PATH, "smart", volume->mountPoint(), "--watch", "--json"},
                                                environment);
    for (std::size_t step = 1; step <= sequence.size(); ++step) {
        ASSERT_TRUE(watch->readLine(10s)) << watch->standardError();
        if (step < sequence.size()) standIn->setBehaviour({Mode::print, sequence[step], "", 0});
    }
    watch->signal(SIGINT);
    EXPECT_EQ(watch->waitForExit(10s), 128 + SIGINT) << watch->standardError();

    const auto history = smart({"--history", "--json"});
    ASSERT_EQ(history.exitStatus, 0) << history.err;
    const auto document = json::parse(history.out);
    EXPECT_EQ(document["drive"]["wwn"], "0x5002538e40a22954");
    std::vector<double> temperatures;
    for (const auto& reading : document["readings"]) temperatures.push_back(reading["temperature"]);
    EXPECT_EQ(temperatures, (std::vector<double>{36, 39, 42, 45, 48, 51}));
    EXPECT_EQ(document["readings"].back()["reallocated_sectors"], 8);
    EXPECT_EQ(document["growth"][0]["attribute"], "reallocated_sectors");
    EXPECT_EQ(document["growth"][0]["growth"], 8);
    const auto check = testing::runProcess({"/usr/bin/sqlite3", database, "PRAGMA integrity_check"}, {});
    EXPECT_EQ(check.out, "ok\n") << check.err;

    const auto acknowledged = smart({"--acknowledge"});
    ASSERT_EQ(acknowledged.exitStatus, 0) << acknowledged.err;
    EXPECT_NE(acknowledged.out.find("Reallocated sectors    8"), std::string::npos) << acknowledged.out;
    EXPECT_EQ(json::parse(smart({"--history", "--json"}).out)["growth"][0]["growth"], 0);
    const auto csv = smart({"--history", "--csv", "--since", "1h"});
    EXPECT_EQ(std::count(csv.out.begin(), csv.out.end(), '\n'), 1 + 6) << csv.out;  // the header and each reading
}

}  // namespace
}  // namespace vantorix
