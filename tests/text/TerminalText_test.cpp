#include "text/TerminalText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantorix::text {
namespace {

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
        {"\xc2\x9b"
         "31m \xc2\x85 \xc2\xa0",
         "\\u009b31m \\u0085 \xc2\xa0", "\\u009b31m \\u0085 \xc2\xa0"},     // C1; NBSP stays
        {"Bad\xff\x9bName", "Bad\uFFFD\uFFFDName", "Bad\uFFFD\uFFFDName"},  // a lone 0x9B byte is not C1
    };
    for (const auto& c : cases) {
        EXPECT_EQ(terminalText(c.bytes), c.text) << c.bytes;
        EXPECT_EQ(terminalLines(c.bytes), c.lines) << c.bytes;
    }
}

}  // namespace
}  // namespace vantorix::text
