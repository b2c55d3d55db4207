#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace vantorix::services {

// The code point that starts at byte `at` of UTF-8 `text`; `at` moves past it. A malformed or
// cut-off sequence (overlong forms and surrogates included) gives nothing and moves `at` past its
// first byte. `at` must be below text.size().
std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& at);

// The code point that ends just before byte `end`; `end` moves to its first byte. A malformed
// sequence gives nothing and moves `end` back by one byte. `end` must be above 0.
std::optional<char32_t> previousCodePoint(std::string_view text, std::size_t& end);

bool isValidUtf8(std::string_view text);

// White space and line breaks: the Unicode separators (Zs, Zl, Zp), tab to carriage return, NEL.
bool isSpaceOrLineBreak(char32_t c);

}  // namespace vantorix::services
