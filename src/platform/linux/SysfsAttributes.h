#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vantorix::sysfs {

// Attribute files are at most a page long; anything longer is not an attribute we understand.
inline constexpr std::size_t kMaxAttributeSize = 4096;

// The text of the attribute file `name` in `dir` with its trailing newlines removed. Nothing when
// `name` is not a plain file name, when the file is not a readable regular file (symbolic links are
// not followed; a file without any read permission bit counts as write-only), when it is longer
// than kMaxAttributeSize, or when it holds a NUL byte or is not valid UTF-8.
std::optional<std::string> readAttribute(const std::filesystem::path& dir, std::string_view name);

// Decimal digits only, fitting in 64 bits.
std::optional<std::uint64_t> parseDecimal(std::string_view text);
// Bare hexadecimal digits, no prefix.
std::optional<std::uint64_t> parseHex(std::string_view text);
// "0x" or "0X" followed by hexadecimal digits.
std::optional<std::uint64_t> parseHexLiteral(std::string_view text);

}  // namespace vantorix::sysfs
