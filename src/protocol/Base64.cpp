#include "protocol/Base64.h"

#include <array>
#include <cstdint>

namespace vantorix::protocol {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The 6-bit value of each alphabet character; -1 for every other byte.
constexpr std::array<std::int8_t, 256> kValues = [] {
    std::array<std::int8_t, 256> values{};
    values.fill(-1);
    for (std::size_t i = 0; i < 64; ++i) values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    return values;
}();

}  // namespace

std::string base64Encoded(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    const auto byte = [&bytes](std::size_t at) {
        return static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[at]));
    };
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

std::optional<std::string> base64Decoded(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        std::uint32_t group = 0;
        int padding = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                ++padding;
                group <<= 6U;
                continue;
            }
            const std::int8_t value = kValues[static_cast<unsigned char>(c)];
            if (value < 0 || padding > 0) return std::nullopt;  // not in the alphabet, or data after "="
            group = group << 6U | static_cast<std::uint32_t>(value);
        }
        out += static_cast<char>(group >> 16U & 0xFFU);
        if (padding < 2) out += static_cast<char>(group >> 8U & 0xFFU);
        if (padding < 1) out += static_cast<char>(group & 0xFFU);
    }
    return out;
}

}  // namespace vantorix::protocol
