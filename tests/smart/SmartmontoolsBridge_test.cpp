#include "smart/SmartmontoolsBridge.h"

#include "log/Log.h"
#include "support/ScopedEnvironment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantorix::smart {
namespace {

using ::testing::ElementsAreArray;

std::vector<std::string> bridgeLines(const log::Capture& capture) {
    std::vector<std::string> lines;
    for (const auto& record : capture.records()) {
        if (record.category == kBridgeLogCategory) {
            lines.push_back(std::string(log::levelName(record.level)) + ": " + record.message);
        }
    }
    return lines;
}

TEST(SmartmontoolsBridge, LogsExitStatusOutputsAndTheToolsMessages) {
    const std::string json = R"({"messages": [{"string": " top ", "severity": "Warning"}, {"string": "  "}, {"string": 5}, "x"],
        "smartctl": {"messages": [{"string": "open failed", "severity": 3}, {"string": "deep", "severity": "FATAL"},
                                  {"string": "info", "severity": "information"}, {"string": "w", "severity": "warn"}]}})";
    const SmartctlExecutionResult result{json, "smartctl -a /dev/sda", std::string("\xff\xfe", 2), 4};
    const log::Capture capture;
    logResultDiagnostics(result, "sda");
    const std::string command = "smartctl -a /dev/sda";
    EXPECT_THAT(bridgeLines(capture),
                ElementsAreArray({
                    "debug: smartctl exited with status 4 for device sda; continuing to parse command: " + command,
                    "debug: smartctl stdout for device sda: " + json,
                    std::string("debug: smartctl stderr for device sda: //4="),
                    "error: smartctl reported message (severity: Warning) for command " + command + ": top",
                    "debug: smartctl reported message (severity: notice) for command " + command + ": open failed",
                    "error: smartctl reported message (severity: FATAL) for command " + command + ": deep",
                    "debug: smartctl reported message (severity: information) for command " + command + ": info",
                    "error: smartctl reported message (severity: warn) for command " + command + ": w",
                }));
}

TEST(SmartmontoolsBridge, LogsEmptyAndUndecodableOutputWithoutMessages) {
    const log::Capture capture;
    logResultDiagnostics(SmartctlExecutionResult{"", "c", "", 0}, "sda");
    logResultDiagnostics(SmartctlExecutionResult{"[{\"messages\": 1}", "c", "careful", -1}, "sdb");
    EXPECT_THAT(bridgeLines(capture), ElementsAreArray({
                                          "debug: smartctl exited with status 0 for device sda; command: c",
                                          "debug: smartctl stdout for device sda was empty",
                                          "debug: smartctl stderr for device sda was empty",
                                          "debug: smartctl exited with status -1 for device sdb; continuing to "
                                          "parse command: c",
                                          "debug: smartctl stdout for device sdb: [{\"messages\": 1}",
                                          "debug: smartctl stderr for device sdb: careful",
                                      }));
}

TEST(SmartmontoolsBridge, InterpretsAResultOrSaysWhyItCannot) {
    const testing::ScopedLanguage english("en_US.UTF-8");
    struct Case {
        std::string json;
        bool usable;
        std::string lastLine;
    };
    const std::vector<Case> cases = {
        {"", false, "error: Failed to decode smartctl JSON for device sdc"},
        {"not json", false, "error: Failed to decode smartctl JSON for device sdc"},
        {R"([{"smart_status": {"passed": true}}])", false, "error: Failed to decode smartctl JSON for device sdc"},
        // Bytes that are not UTF-8 (broken USB bridges) become U+FFFD; the rest is still read.
        {"{\"model_name\": \"WD\xff\xc3\"}", true,
         "debug: Successfully parsed SMART details for device sdc via privileged helper"},
        {R"({"device": {"name": "/dev/sdc"}})", false,
         "error: smartctl JSON for device sdc did not contain usable SMART information"},
        {R"({"smart_status": {"passed": true}})", true,
         "debug: Successfully parsed SMART details for device sdc via privileged helper"},
    };
    for (const auto& c : cases) {
        const log::Capture capture;
        const auto info = interpretResult(SmartctlExecutionResult{c.json, "smartctl -j -a /dev/sdc", "", 64}, "sdc");
        EXPECT_EQ(info.has_value(), c.usable) << c.json;
        if (info) {
            EXPECT_EQ(info->sourceCommand, "smartctl -j -a /dev/sdc");
            if (info->details[0].keyPath == "model_name") {
                EXPECT_EQ(info->details[0].value, "WD\uFFFD\uFFFD");
            }
        }
        const auto lines = bridgeLines(capture);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), c.lastLine) << c.json;
    }
}

}  // namespace
}  // namespace vantorix::smart
