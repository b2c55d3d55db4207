#include "platform/BlockStatistics.h"

#include <array>
#include <charconv>

namespace vantorix {
namespace {

constexpr std::size_t kFieldCount = 17;
constexpr std::size_t kRequiredFields = 11;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::optional<std::uint64_t> decimal(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<BlockStatistics> parseBlockStatistics(std::string_view text) {
    std::array<std::uint64_t, kFieldCount> fields{};
    std::size_t count = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && isSpace(text[i])) ++i;
        if (i == text.size()) break;
        std::size_t end = i;
        while (end < text.size() && !isSpace(text[end])) ++end;
        const auto value = decimal(text.substr(i, end - i));
        if (!value) return std::nullopt;
        if (count < fields.size()) fields[count] = *value;
        ++count;
        i = end;
    }
    if (count < kRequiredFields) return std::nullopt;
    return BlockStatistics{fields[0],  fields[1],  fields[2],  fields[3],  fields[4],  fields[5],
                           fields[6],  fields[7],  fields[8],  fields[9],  fields[10], fields[11],
                           fields[12], fields[13], fields[14], fields[15], fields[16]};
}

}  // namespace vantorix
