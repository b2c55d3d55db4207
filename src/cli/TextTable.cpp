#include "cli/TextTable.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>

namespace vantorix::cli {

std::size_t displayWidth(const std::string& text) {
    std::size_t columns = 0;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    for (std::int32_t offset = 0; offset < length;) {
        UChar32 c = 0;
        U8_NEXT(bytes, offset, length, c);
        const auto width = c < 0 ? U_EA_NEUTRAL : u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
        columns += width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
    }
    return columns;
}

void printTable(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& rows) {
    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, displayWidth(row.first));
    for (const auto& [label, value] : rows) {
        out << label << std::string(width - displayWidth(label) + 2, ' ') << value << '\n';
    }
}

}  // namespace vantorix::cli
