#pragma once

#include <string>
#include <string_view>

namespace vantorix::smart {

// Standard base64 (RFC 4648 alphabet, "=" padding) of raw bytes.
std::string base64Encoded(std::string_view bytes);

}  // namespace vantorix::smart
