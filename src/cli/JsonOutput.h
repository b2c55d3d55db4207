#pragma once

#include <nlohmann/json.hpp>

#include <ostream>
#include <string_view>

namespace vantorix::cli {

// With --json, standard output carries nothing but what these write: one document, or one object
// per line for a stream (`indent` -1). Flushed, so that a reader of a stream sees each line at once.
// No control character is written raw: the C0 ones are escaped by the JSON writer, DEL and C1
// (U+0080–U+009F) here, so a document shown on a terminal cannot drive it.
void printJson(std::ostream& out, const nlohmann::ordered_json& document, int indent = 2);

// A command's failure in the shape every command uses: {"error":{"code":…,"message":…}}.
void printJsonError(std::ostream& out, std::string_view code, std::string_view message, int indent = 2);

}  // namespace vantorix::cli
