#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using Environment = std::map<std::string, std::optional<std::string>>;

const Environment kEnglish{{"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt},
                           {"LANG", "en_US.UTF-8"}, {"VANTORIX_LOG", "off"}};
const Environment kChinese{{"LANGUAGE", "zh_CN:en"}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt},
                           {"LANG", "en_US.UTF-8"}, {"VANTORIX_LOG", "off"}};
const std::string kNvme = std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json";

testing::ProcessResult smart(const std::vector<std::string>& args, const Environment& environment = kEnglish) {
    std::vector<std::string> argv{VANTORIX_CLI_PATH, "smart"};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, environment);
}

TEST(SmartCli, PrintsStatusAndRowsInTheUsersLanguage) {
    const auto english = smart({"--json-file", kNvme});
    ASSERT_EQ(english.exitStatus, 0) << english.err;
    EXPECT_EQ(english.out.substr(0, english.out.find("Model")),
              "Overall Status  PASSED\n\nSerial Number                              BTNH93710FS91P0B\n");
    const auto chinese = smart({"--json-file", kNvme}, kChinese);
    ASSERT_EQ(chinese.exitStatus, 0) << chinese.err;
    EXPECT_EQ(chinese.out.substr(0, chinese.out.find("型号")),
              "总体状态  PASSED\n\n序列号                                     BTNH93710FS91P0B\n");
}

TEST(SmartCli, PrintsOneJsonDocument) {
    const auto result = smart({"--json-file", kNvme, "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["overallStatus"], "PASSED");
    EXPECT_TRUE(document["isCapable"].is_null());
    EXPECT_EQ(document["sourceCommand"], "smartctl --all --json /dev/testfoobarpass");
    ASSERT_EQ(document["details"].size(), 34U);
    EXPECT_EQ(document["details"][0]["keyPath"], "serial_number");
    EXPECT_EQ(document["details"][0]["displayName"], "Serial Number");
    EXPECT_EQ(document["details"][0]["value"], "BTNH93710FS91P0B");
    EXPECT_EQ(document["details"][0]["id"].get<std::string>().size(), 36U);
}

TEST(SmartCli, FailsWithAMessageForUnusableFiles) {
    const auto dir = fs::temp_directory_path() / ("vantorix-smart-cli-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "text.json") << "smartctl 7.3";
    std::ofstream(dir / "empty.json") << R"({"smartctl": {"exit_status": 2}, "device": {}})";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{"--json-file", (dir / "missing.json").string()},
         1, "Cannot read " + (dir / "missing.json").string() + ": No such file or directory\n"},
        {{"--json-file", (dir / "text.json").string()}, 1, "The file is not smartctl JSON output.\n"},
        {{"--json-file", (dir / "empty.json").string()}, 1, "The file holds no usable SMART information.\n"},
        {{"--json-file", dir.string()}, 1, "Cannot read " + dir.string() + ": Is a directory\n"},
        {{}, 2, ""},
    };
    for (const auto& c : cases) {
        const auto result = smart(c.args);
        EXPECT_EQ(result.exitStatus, c.status) << result.err;
        if (!c.error.empty()) {
            EXPECT_EQ(result.err, c.error);
        }
    }
    const auto json = smart({"--json-file", (dir / "empty.json").string(), "--json"});
    EXPECT_EQ(nlohmann::json::parse(json.out)["error"]["code"], "noUsableData");
    fs::remove_all(dir);
}

}  // namespace
}  // namespace vantorix
