#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vantorix::smart {

// The code point that starts at `offset`, which moves past it; a negative value for an ill-formed
// sequence (then `offset` moves past the bytes that were examined). Requires offset < text.size().
int nextCodePoint(std::string_view text, std::size_t& offset);

// The code point that ends at `end`, which moves to its start; never reads before `begin`. A
// negative value for an ill-formed sequence. Requires begin < end.
int previousCodePoint(std::string_view text, std::size_t begin, std::size_t& end);

bool isValidUtf8(std::string_view text);

// The text with every ill-formed sequence (each maximal ill-formed subpart) replaced by U+FFFD.
std::string repairedUtf8(std::string_view text);

}  // namespace vantorix::smart
