#include "cli/TextTable.h"

#include <unicode/uchar.h>

#include <algorithm>

#include "text/TerminalText.h"
#include "text/Utf8.h"

namespace vantorix::cli {

std::size_t displayWidth(const std::string& cell) {
    std::size_t columns = 0;
    for (std::size_t offset = 0; offset < cell.size();) {
        const auto c = text::nextCodePoint(cell, offset);
        const auto width = c ? u_getIntPropertyValue(static_cast<UChar32>(*c), UCHAR_EAST_ASIAN_WIDTH) : U_EA_NEUTRAL;
        columns += width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
    }
    return columns;
}

void printTable(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& rows) {
    // Names, paths and a drive's strings come from outside: what is not UTF-8 shows as U+FFFD, and
    // control characters as visible escapes, so no value can move the cursor or fake a row.
    std::vector<std::pair<std::string, std::string>> shown;
    shown.reserve(rows.size());
    std::size_t width = 0;
    for (const auto& [label, value] : rows) {
        shown.emplace_back(text::terminalText(label), text::terminalText(value));
        width = std::max(width, displayWidth(shown.back().first));
    }
    for (const auto& [label, value] : shown) {
        out << label << std::string(width - displayWidth(label) + 2, ' ') << value << '\n';
    }
}

}  // namespace vantorix::cli
