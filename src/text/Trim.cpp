#include "text/Trim.h"

#include <unicode/uchar.h>

#include "text/Utf8.h"

namespace vantorix::text {

bool isSpaceOrLineBreak(char32_t c) {
    if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
    const auto category = u_charType(static_cast<UChar32>(c));
    return category == U_SPACE_SEPARATOR || category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR;
}

std::string_view trimmed(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t next = begin;
        const auto c = nextCodePoint(text, next);
        if (!c || !isSpaceOrLineBreak(*c)) break;
        begin = next;
    }
    std::size_t end = text.size();
    while (end > begin) {
        std::size_t previous = end;
        const auto c = previousCodePoint(text, begin, previous);
        if (!c || !isSpaceOrLineBreak(*c)) break;
        end = previous;
    }
    return text.substr(begin, end - begin);
}

}  // namespace vantorix::text
