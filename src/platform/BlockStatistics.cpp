#include "platform/BlockStatistics.h"

#include <array>

namespace vantorix {
namespace {

constexpr std::size_t kFieldCount = 17;
constexpr std::size_t kRequiredFields = 11;

// The decimal number in [begin, end), or nothing when it does not fit in 64 bits. Numbers of up
// to 19 digits always fit and take the unchecked path.
std::optional<std::uint64_t> checkedDecimal(const char* begin, const char* end) {
    std::uint64_t value = 0;
    for (const char* at = begin; at != end; ++at) {
        if (__builtin_mul_overflow(value, 10U, &value) ||
            __builtin_add_overflow(value, static_cast<unsigned>(*at - '0'), &value)) {
            return std::nullopt;
        }
    }
    return value;
}

bool isSeparator(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

// One pass over the bytes: this runs once per sample, up to a thousand times a second.
std::optional<BlockStatistics> parseBlockStatistics(std::string_view text) {
    std::array<std::uint64_t, kFieldCount> fields{};
    std::size_t count = 0;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        if (*at == ' ') {  // the kernel pads every field with spaces
            ++at;
            continue;
        }
        auto digit = static_cast<unsigned>(*at - '0');
        if (digit > 9) {
            if (!isSeparator(*at)) return std::nullopt;
            ++at;
            continue;
        }
        const char* const start = at;
        std::uint64_t value = 0;
        do {
            value = value * 10 + digit;
            ++at;
        } while (at != end && (digit = static_cast<unsigned>(*at - '0')) <= 9);
        if (at - start > 19) {
            const auto checked = checkedDecimal(start, at);
            if (!checked) return std::nullopt;
            value = *checked;
        }
        if (at != end && !isSeparator(*at)) return std::nullopt;
        if (count < fields.size()) fields[count] = value;
        ++count;
    }
    if (count < kRequiredFields) return std::nullopt;
    return BlockStatistics{fields[0],  fields[1],  fields[2],  fields[3],  fields[4],  fields[5],
                           fields[6],  fields[7],  fields[8],  fields[9],  fields[10], fields[11],
                           fields[12], fields[13], fields[14], fields[15], fields[16]};
}

}  // namespace vantorix
