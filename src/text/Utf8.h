#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vantorix::text {

// UTF-8 as ICU reads it: overlong forms, surrogates and code points past U+10FFFF are ill-formed,
// and an ill-formed sequence is its maximal ill-formed subpart (what U+FFFD stands for).

bool isValidUtf8(std::string_view bytes);

// The bytes as UTF-8 text: each ill-formed sequence becomes U+FFFD, everything else is kept as it
// is (valid text comes back unchanged). For labels, paths and tool output that are bytes.
std::string lossyUtf8(std::string_view bytes);

// The code point that starts at `offset`, which moves past it; nothing for an ill-formed sequence,
// and then `offset` moves past that sequence. Requires offset < text.size().
std::optional<char32_t> nextCodePoint(std::string_view text, std::size_t& offset);

// The code point that ends at `end`, which moves to its start; never reads before `begin`. Nothing
// for an ill-formed sequence, and then `end` moves to its start. Requires begin < end.
std::optional<char32_t> previousCodePoint(std::string_view text, std::size_t begin, std::size_t& end);

}  // namespace vantorix::text
