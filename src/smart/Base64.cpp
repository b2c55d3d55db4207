#include "smart/Base64.h"

#include <cstdint>

namespace vantorix::smart {

std::string base64Encoded(std::string_view bytes) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    const auto byte = [&bytes](std::size_t at) { return static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[at])); };
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t group = byte(i) << 16U | byte(i + 1) << 8U | byte(i + 2);
        for (unsigned shift : {18U, 12U, 6U, 0U}) out += kAlphabet[(group >> shift) & 0x3FU];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t group = byte(i) << 16U;
        if (rest == 2) group |= byte(i + 1) << 8U;
        out += kAlphabet[(group >> 18U) & 0x3FU];
        out += kAlphabet[(group >> 12U) & 0x3FU];
        out += rest == 2 ? kAlphabet[(group >> 6U) & 0x3FU] : '=';
        out += '=';
    }
    return out;
}

}  // namespace vantorix::smart
