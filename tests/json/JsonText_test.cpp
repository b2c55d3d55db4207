#include "json/JsonText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantorix {
namespace {

using json = nlohmann::ordered_json;
const std::string kReplacement = "\uFFFD";

TEST(JsonText, BytesThatAreNotUtf8BecomeReplacementCharactersInValuesAndNames) {
    struct Case {
        std::string bytes;
        std::string text;  // as it reads back
    };
    const std::vector<Case> cases = {
        {"Bad\xff\xfeName", "Bad" + kReplacement + kReplacement + "Name"},
        {"/mnt/dir\xff/x", "/mnt/dir" + kReplacement + "/x"},
        {"cut \xe2\x82", "cut " + kReplacement},
        {"\xc0\xaf", kReplacement + kReplacement},
        {"标题 \"quoted\"\n", "标题 \"quoted\"\n"},
    };
    for (const auto& c : cases) {
        const json document{{"displayName", c.bytes}, {c.bytes, json::array({c.bytes})}};
        for (const int indent : {2, -1}) {
            const std::string text = jsonText(document, indent);
            EXPECT_EQ(text.find('\n') == std::string::npos, indent < 0) << text;
            const auto parsed = json::parse(text);  // throws on text that is not valid UTF-8
            EXPECT_EQ(parsed["displayName"], c.text);
            EXPECT_EQ(parsed[c.text][0], c.text);
        }
    }
}

TEST(JsonText, ErrorsHaveOneShape) {
    EXPECT_EQ(jsonText(jsonError("blockDeviceNotFound", "无法找到\xff"), -1),
              R"({"error":{"code":"blockDeviceNotFound","message":"无法找到)" + kReplacement + R"("}})");
}

}  // namespace
}  // namespace vantorix
