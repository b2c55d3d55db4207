#include "cli/JsonOutput.h"

#include <fmt/format.h>

#include <iterator>
#include <string>

#include "json/JsonText.h"

namespace vantorix::cli {
namespace {

// DEL and the C1 characters as \u escapes. They can only stand inside strings (the rest of a JSON
// text is ASCII without them), where an escape means the same character.
std::string withoutRawControls(const std::string& json) {
    std::string out;
    out.reserve(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
        const auto byte = static_cast<unsigned char>(json[i]);
        const auto next = i + 1 < json.size() ? static_cast<unsigned char>(json[i + 1]) : 0U;
        if (byte == 0x7F) {
            out += "\\u007f";
        } else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
            fmt::format_to(std::back_inserter(out), "\\u{:04x}", next);
            ++i;
        } else {
            out += static_cast<char>(byte);
        }
    }
    return out;
}

}  // namespace

void printJson(std::ostream& out, const nlohmann::ordered_json& document, int indent) {
    out << withoutRawControls(jsonText(document, indent)) << std::endl;
}

void printJsonError(std::ostream& out, std::string_view code, std::string_view message, int indent) {
    printJson(out, jsonError(code, message), indent);
}

}  // namespace vantorix::cli
