#include "text/TerminalText.h"

#include <fmt/format.h>

#include <iterator>

#include "text/Utf8.h"

namespace vantorix::text {
namespace {

void appendEscape(std::string& out, unsigned char c) {
    switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case 0x1B: out += "\\e"; break;
        default: fmt::format_to(std::back_inserter(out), "\\x{:02x}", c);
    }
}

std::string escaped(std::string_view bytes, bool keepLineFeeds) {
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t offset = 0; offset < bytes.size();) {
        const auto byte = static_cast<unsigned char>(bytes[offset]);
        if (byte < 0x80) {
            ++offset;
            if ((byte < 0x20 || byte == 0x7F) && !(keepLineFeeds && byte == '\n')) appendEscape(out, byte);
            else out += static_cast<char>(byte);
            continue;
        }
        const std::size_t start = offset;
        const auto c = nextCodePoint(bytes, offset);
        if (!c) out += "\xEF\xBF\xBD";
        else if (*c <= 0x9F) fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(*c));
        else out.append(bytes.substr(start, offset - start));
    }
    return out;
}

}  // namespace

std::string terminalText(std::string_view bytes) { return escaped(bytes, false); }

std::string terminalLines(std::string_view bytes) { return escaped(bytes, true); }

}  // namespace vantorix::text
