#include "smart/SmartmontoolsBridge.h"

#include "log/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantorix::smart {
namespace {

using ::testing::ElementsAre;

TEST(SmartmontoolsBridge, LogsTheToolsMessagesAtTheLevelTheirSeverityCalls) {
    const std::string json = R"({"messages": [{"string": " top ", "severity": "Warning"}, {"string": "  "}, "x",
        {"string": 5}], "smartctl": {"messages": [{"string": "open failed", "severity": 3},
        {"string": "deep", "severity": "FATAL"}, {"string": "info", "severity": "information"},
        {"string": "w", "severity": "warn"}]}})";
    const log::Capture capture;
    logResultDiagnostics(SmartctlExecutionResult{json, "smartctl -a /dev/sda", std::string("\xff\xfe", 2), 4}, "sda");
    // What each message said, after the command; blank and malformed messages are passed over.
    const auto said = [&capture](log::Level level) {
        std::vector<std::string> texts;
        for (const auto& message : capture.messages(kBridgeLogCategory, level)) {
            if (message.rfind("smartctl reported message", 0) != 0) continue;
            texts.push_back(message.substr(message.rfind(": ") + 2));
        }
        return texts;
    };
    EXPECT_THAT(said(log::Level::error), ElementsAre("top", "deep", "w"));
    EXPECT_THAT(said(log::Level::debug), ElementsAre("open failed", "info"));
}

TEST(SmartmontoolsBridge, InterpretsAResultOrLogsWhyItCannot) {
    const std::pair<std::string, bool> cases[] = {
        {"", false},
        {"not json", false},
        {R"([{"smart_status": {"passed": true}}])", false},
        {R"({"device": {"name": "/dev/sdc"}})", false},
        {R"({"smart_status": {"passed": true}})", true},
        // Bytes that are not UTF-8 (broken USB bridges) become U+FFFD; the rest is still read.
        {"{\"model_name\": \"WD\xff\xc3\"}", true},
    };
    for (const auto& [json, usable] : cases) {
        const log::Capture capture;
        const auto info = interpretResult(SmartctlExecutionResult{json, "smartctl -j -a /dev/sdc", "", 64}, "sdc");
        EXPECT_EQ(info.has_value(), usable) << json;
        EXPECT_EQ(capture.messages(kBridgeLogCategory, log::Level::error).empty(), usable) << json;
        if (info) {
            EXPECT_EQ(info->sourceCommand, "smartctl -j -a /dev/sdc");
        }
    }
    const auto repaired = interpretResult(SmartctlExecutionResult{"{\"model_name\": \"WD\xff\xc3\"}", "c", "", 0}, "sd");
    ASSERT_TRUE(repaired);
    EXPECT_EQ(repaired->details[0].value, "WD\uFFFD\uFFFD");
}

}  // namespace
}  // namespace vantorix::smart
