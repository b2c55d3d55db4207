#include "text/Utf8.h"
#include "text/TerminalText.h"
#include "text/Trim.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantorix::text {
namespace {

const std::string kReplacement = "\uFFFD";

TEST(Utf8, IllFormedSequencesBecomeOneReplacementEach) {
    struct Case {
        std::string bytes;
        bool valid;
        std::string lossy;
    };
    const std::vector<Case> cases = {
        {"", true, ""},
        {"plain ASCII", true, "plain ASCII"},
        {"标题 € \U0001F468", true, "标题 € \U0001F468"},
        {std::string("a\0b", 3), true, std::string("a\0b", 3)},
        {"Bad\xff\xfeName", false, "Bad" + kReplacement + kReplacement + "Name"},
        {"\xc0\xaf", false, kReplacement + kReplacement},                                        // an overlong "/"
        {"\xed\xa0\x80", false, kReplacement + kReplacement + kReplacement},                     // a surrogate
        {"\xf4\x90\x80\x80", false, kReplacement + kReplacement + kReplacement + kReplacement},  // past U+10FFFF
        {"\xe2\x82", false, kReplacement},  // cut off: one maximal subpart
        {"x\xe2\x82y\xf0\x9f\x98", false, "x" + kReplacement + "y" + kReplacement},
        {"\x80\xbf", false, kReplacement + kReplacement},  // stray continuation bytes
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isValidUtf8(c.bytes), c.valid) << c.bytes;
        EXPECT_EQ(lossyUtf8(c.bytes), c.lossy) << c.bytes;
        EXPECT_TRUE(isValidUtf8(lossyUtf8(c.bytes))) << c.bytes;
    }
}

TEST(Trim, WhiteSpaceAndLineBreaksOfAnyScriptButNeverIllFormedBytes) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"\u3000 \t\n\u00A0a b\u2028 \r\n", "a b"},
        {"\u0085x\u2029\v\f", "x"},
        {"\u200Bzero width\u200B", "\u200Bzero width\u200B"},  // not a space separator
        {std::string("\xff \xe2\x80", 4), std::string("\xff \xe2\x80", 4)},
        {" \xc3", "\xc3"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(trimmed(text), expected) << text;
}

TEST(TerminalText, ControlCharactersShowAsVisibleEscapesAndNothingElseChanges) {
    struct Case {
        std::string bytes;
        std::string text;   // terminalText
        std::string lines;  // terminalLines
    };
    const std::vector<Case> cases = {
        {"Samsung SSD 980 标题 € \U0001F468", "Samsung SSD 980 标题 € \U0001F468", "Samsung SSD 980 标题 € \U0001F468"},
        {"EVIL\a\nROW", "EVIL\\x07\\nROW", "EVIL\\x07\nROW"},  // ESC sequences: the command-line tests
        {std::string("\0\x7f", 2), "\\x00\\x7f", "\\x00\\x7f"},
        {"\u009b31m \u0085 \u00a0", "\\u009b31m \\u0085 \u00a0", "\\u009b31m \\u0085 \u00a0"},  // C1; NBSP stays
        {"Bad\xff\x9bName", "Bad\uFFFD\uFFFDName", "Bad\uFFFD\uFFFDName"},  // a lone 0x9B byte is not C1
    };
    for (const auto& c : cases) {
        EXPECT_EQ(terminalText(c.bytes), c.text) << c.bytes;
        EXPECT_EQ(terminalLines(c.bytes), c.lines) << c.bytes;
    }
}

}  // namespace
}  // namespace vantorix::text
