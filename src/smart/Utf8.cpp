#include "smart/Utf8.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>

namespace vantorix::smart {

// ICU's macros take 32-bit offsets; a window of at most four bytes around the position keeps any
// text length usable.
constexpr std::size_t kLongestSequence = 4;

int nextCodePoint(std::string_view text, std::size_t& offset) {
    const auto* window = reinterpret_cast<const std::uint8_t*>(text.data() + offset);
    const auto length = static_cast<std::int32_t>(std::min(text.size() - offset, kLongestSequence));
    std::int32_t position = 0;
    UChar32 c = 0;
    U8_NEXT(window, position, length, c);
    offset += static_cast<std::size_t>(position);
    return c;
}

int previousCodePoint(std::string_view text, std::size_t begin, std::size_t& end) {
    const std::size_t windowStart = std::max(begin, end >= kLongestSequence ? end - kLongestSequence : 0);
    const auto* window = reinterpret_cast<const std::uint8_t*>(text.data() + windowStart);
    auto position = static_cast<std::int32_t>(end - windowStart);
    UChar32 c = 0;
// The macro casts its argument C-style to the pointer type it already has.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
    U8_PREV(window, 0, position, c);
#pragma GCC diagnostic pop
    end = windowStart + static_cast<std::size_t>(position);
    return c;
}

bool isValidUtf8(std::string_view text) {
    std::size_t offset = 0;
    while (offset < text.size()) {
        if (static_cast<unsigned char>(text[offset]) < 0x80) {
            ++offset;
            continue;
        }
        if (nextCodePoint(text, offset) < 0) return false;
    }
    return true;
}

std::string repairedUtf8(std::string_view text) {
    static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    std::string repaired;
    repaired.reserve(text.size());
    std::size_t offset = 0;
    while (offset < text.size()) {
        const std::size_t start = offset;
        if (static_cast<unsigned char>(text[offset]) < 0x80) {
            ++offset;
        } else if (nextCodePoint(text, offset) < 0) {
            repaired += kReplacement;
            continue;
        }
        repaired.append(text.substr(start, offset - start));
    }
    return repaired;
}

}  // namespace vantorix::smart
