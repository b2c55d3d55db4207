#include "text/Utf8.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>

namespace vantorix::text {
namespace {

// ICU's macros take 32-bit offsets; a window of at most four bytes around the position keeps any
// text length usable.
constexpr std::size_t kLongestSequence = 4;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

}  // namespace

std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& offset) {
    const auto* window = reinterpret_cast<const std::uint8_t*>(text.data() + offset);
    const auto length = static_cast<std::int32_t>(std::min(text.size() - offset, kLongestSequence));
    std::int32_t position = 0;
    UChar32 c = 0;
    U8_NEXT(window, position, length, c);
    offset += static_cast<std::size_t>(position);
    if (c < 0) return std::nullopt;
    return static_cast<char32_t>(c);
}

std::optional<char32_t> previousCodePoint(std::string_view text, std::size_t begin, std::size_t& end) {
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
    if (c < 0) return std::nullopt;
    return static_cast<char32_t>(c);
}

bool isValidUtf8(std::string_view bytes) {
    for (std::size_t offset = 0; offset < bytes.size();) {
        if (isAscii(bytes[offset])) {
            ++offset;
        } else if (!nextCodePoint(bytes, offset)) {
            return false;
        }
    }
    return true;
}

std::string lossyUtf8(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t offset = 0; offset < bytes.size();) {
        const std::size_t start = offset;
        if (isAscii(bytes[offset])) {
            ++offset;
        } else if (!nextCodePoint(bytes, offset)) {
            text += kReplacement;
            continue;
        }
        text.append(bytes.substr(start, offset - start));
    }
    return text;
}

}  // namespace vantorix::text
