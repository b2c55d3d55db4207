#include "smart/SmartmontoolsBridge.h"

#include "log/Log.h"

#include <gtest/gtest.h>

#include <string>

namespace vantorix::smart {
namespace {

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
    const auto repaired = interpretResult(SmartctlExecutionResult{"{\"model_name\": \"WD\xff\xc3\"}", "c", "", 0},
                                          "sd");
    ASSERT_TRUE(repaired);
    EXPECT_EQ(repaired->details[0].value, "WD\uFFFD\uFFFD");
}

}  // namespace
}  // namespace vantorix::smart
