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
        {"1234567", "1,234,567", "1,234,567"},
        {"1234.0", "1,234", "1,234"},
        {"36.456", "36.46", "36.46"},
        {"-1234.5", "-1,234.5", "-1,234.5"},
        {"0.125", "0.12", "0.12"},  // the formatter's default rounding: half to even
        {"1e20", "100,000,000,000,000,000,000", "100,000,000,000,000,000,000"},
        // Integers are printed exactly, not through a double, at both ends of 64 bits.
        {"9223372036854775807", "9,223,372,036,854,775,807", "9,223,372,036,854,775,807"},
        {"-9223372036854775808", "-9,223,372,036,854,775,808", "-9,223,372,036,854,775,808"},
        {"18446744073709551615", "18,446,744,073,709,551,615", "18,446,744,073,709,551,615"},
        {"true", "Yes", "是"},
        {"false", "No", "否"},
        {"null", "<null>", "<null>"},
        {R"("  PO-R-- ")", "PO-R--", "PO-R--"},
        {R"("WDC  WUH721816ALE6L4")", "WDC  WUH721816ALE6L4", "WDC  WUH721816ALE6L4"},
        {R"("\t\r\n line one\nline two \u2028")", "line one\nline two", "line one\nline two"},
        {R"("\u3000温度\u00a0")", "温度", "温度"},
        {R"("\u200b")", "\u200b", "\u200b"},  // a zero-width space is a format character, not white space
        {R"("   ")", "", ""},
        {R"("")", "", ""},
    };
    for (const auto& c : cases) {
        const auto value = json::parse(c.json);
        EXPECT_EQ(formattedValue(value, true), c.english) << c.json;
        EXPECT_EQ(formattedValue(value, false), c.chinese) << c.json;
    }
}

TEST(SmartValueText, DerivesReadableNamesFromMemberNames) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"fooBarBaz_qux", "foo Bar Baz qux"},
        {"sata2Speed", "sata2 Speed"},
        {"eui64", "eui64"},
        {"HTTPServer", "HTTPServer"},
        {"ABC_def", "ABC def"},
        {"__lead_and_trail__", "lead and trail"},
        {"温度Celsius", "温度Celsius"},
        {"_", "_"},
        {"  ", "  "},
        {"", ""},
    };
    for (const auto& [member, expected] : cases) EXPECT_EQ(derivedName(member), expected) << member;
}

TEST(SmartValueText, LowerCasesAnyScriptAndKeepsIllFormedText) {
    EXPECT_EQ(lowercased("SMART Status › ÄÖ Ω"), "smart status › äö ω");
    EXPECT_EQ(lowercased("İ"), "i\u0307");
    EXPECT_EQ(lowercased("AB\xff"), "ab\uFFFD");
}

}  // namespace
}  // namespace vantorix::smart
