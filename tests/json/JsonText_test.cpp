#include "json/JsonText.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace vantorix {
namespace {

using json = nlohmann::ordered_json;
const std::string kReplacement = "\uFFFD";

TEST(JsonText, BytesThatAreNotUtf8BecomeReplacementCharactersInValuesNamesAndErrors) {
    const std::pair<std::string, std::string> cases[] = {
        {"Bad\xff\xfeName", "Bad" + kReplacement + kReplacement + "Name"},
        {"cut \xe2\x82", "cut " + kReplacement},
        {"\xc0\xaf", kReplacement + kReplacement},
        {"标题 \"quoted\"\n", "标题 \"quoted\"\n"},
    };
    for (const auto& [bytes, readBack] : cases) {
        const json document{{"displayName", bytes}, {bytes, json::array({bytes})}};
        for (const int indent : {2, -1}) {
            const std::string text = jsonText(document, indent);
            EXPECT_EQ(text.find('\n') == std::string::npos, indent < 0) << text;
            const auto parsed = json::parse(text);  // throws on text that is not valid UTF-8
            EXPECT_EQ(parsed["displayName"], readBack);
            EXPECT_EQ(parsed[readBack][0], readBack);
        }
    }
    EXPECT_EQ(jsonText(jsonError("blockDeviceNotFound", "无法找到\xff"), -1),
              R"({"error":{"code":"blockDeviceNotFound","message":"无法找到)" + kReplacement + R"("}})");
}

}  // namespace
}  // namespace vantorix
