#pragma once

#include <nlohmann/json.hpp>

#include <ostream>
#include <string_view>

#include "json/JsonText.h"

namespace vantorix::cli {

// With --json, standard output carries nothing but what these write: one document, or one object
// per line for a stream (`indent` -1). Flushed, so that a reader of a stream sees each line at once.
inline void printJson(std::ostream& out, const nlohmann::ordered_json& document, int indent = 2) {
    out << jsonText(document, indent) << std::endl;
}

// A command's failure in the shape every command uses: {"error":{"code":…,"message":…}}.
inline void printJsonError(std::ostream& out, std::string_view code, std::string_view message, int indent = 2) {
    printJson(out, jsonError(code, message), indent);
}

}  // namespace vantorix::cli
