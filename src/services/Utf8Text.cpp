#include "services/Utf8Text.h"

#include <unicode/uchar.h>

namespace vantorix::services {
namespace {

unsigned byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

bool isContinuation(unsigned byte) { return (byte & 0xC0U) == 0x80U; }

}  // namespace

std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& at) {
    const std::size_t start = at++;
    const unsigned lead = byteAt(text, start);
    if (lead < 0x80U) return static_cast<char32_t>(lead);
    std::size_t length = 0;
    char32_t value = 0;
    char32_t smallest = 0;
    if (lead >= 0xC2U && lead <= 0xDFU) {
        length = 2, value = lead & 0x1FU, smallest = 0x80;
    } else if (lead >= 0xE0U && lead <= 0xEFU) {
        length = 3, value = lead & 0x0FU, smallest = 0x800;
    } else if (lead >= 0xF0U && lead <= 0xF4U) {
        length = 4, value = lead & 0x07U, smallest = 0x10000;
    } else {
        return std::nullopt;
    }
    if (text.size() - start < length) return std::nullopt;
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned byte = byteAt(text, start + i);
        if (!isContinuation(byte)) return std::nullopt;
        value = (value << 6U) | (byte & 0x3FU);
    }
    if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return std::nullopt;
    at = start + length;
    return value;
}

std::optional<char32_t> previousCodePoint(std::string_view text, std::size_t& end) {
    std::size_t start = end - 1;
    while (start > 0 && end - start < 4 && isContinuation(byteAt(text, start))) --start;
    std::size_t at = start;
    const auto decoded = nextCodePoint(text, at);
    if (!decoded || at != end) {
        --end;
        return std::nullopt;
    }
    end = start;
    return decoded;
}

bool isValidUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        if (!nextCodePoint(text, at)) return false;
    }
    return true;
}

bool isSpaceOrLineBreak(char32_t c) {
    if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
    const auto category = static_cast<UCharCategory>(u_charType(static_cast<UChar32>(c)));
    return category == U_SPACE_SEPARATOR || category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR;
}

}  // namespace vantorix::services
