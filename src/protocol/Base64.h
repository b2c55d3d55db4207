#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vantorix::protocol {

// Standard base64 (RFC 4648 alphabet, "=" padding) of raw bytes.
std::string base64Encoded(std::string_view bytes);

// The bytes of a standard base64 text; nothing when it is not one (a character outside the
// alphabet, white space included, a length that is not a multiple of four, or misplaced padding).
std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace vantorix::protocol
