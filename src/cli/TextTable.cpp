#include "cli/TextTable.h"

#include <algorithm>

namespace vantorix::cli {

std::size_t displayWidth(const std::string& text) {
    std::size_t columns = 0;
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t length = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        columns += length >= 3 ? 2 : 1;
        i += length;
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
