#include "smart/SmartValueText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantorix::smart {
namespace {

using json = nlohmann::ordered_json;

TEST(SmartValueText, FormatsEachJsonTypeInBothLanguages) {
    struct Case {
        std::string json;  // one value, parsed as smartctl output would be
        std::string english, chinese;
    };
    const std::vector<Case> cases = {
        {"-1234.5", "-1,234.5", "-1,234.5"},
        {"0.125", "0.12", "0.12"},  // the formatter's default rounding: half to even
        // Integers are printed exactly, not through a double, at both ends of 64 bits.
        {"9223372036854775807", "9,223,372,036,854,775,807", "9,223,372,036,854,775,807"},
        {"-9223372036854775808", "-9,223,372,036,854,775,808", "-9,223,372,036,854,775,808"},
        {"18446744073709551615", "18,446,744,073,709,551,615", "18,446,744,073,709,551,615"},
        {"true", "Yes", "是"},
        {"false", "No", "否"},
        {"null", "<null>", "<null>"},
        {R"("\t\r\n line one\nline two \u2028")", "line one\nline two", "line one\nline two"},
        {R"("\u200b")", "\u200b", "\u200b"},  // a zero-width space is a format character, not white space
    };
    for (const auto& c : cases) {
        const auto value = json::parse(c.json);
        EXPECT_EQ(formattedValue(value, true), c.english) << c.json;
        EXPECT_EQ(formattedValue(value, false), c.chinese) << c.json;
    }
}

}  // namespace
}  // namespace vantorix::smart
