#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

namespace vantorix {

// The one way a JSON document becomes text, for every program and command. Strings and member
// names may hold bytes that are not UTF-8 (labels and paths are bytes): each ill-formed sequence is
// written as U+FFFD, so the text is always valid JSON. Pretty-printed with `indent` spaces, or on
// one line when `indent` is negative. Throws nothing but std::bad_alloc.
std::string jsonText(const nlohmann::ordered_json& document, int indent = 2);

// The shape every command reports a failure in: {"error":{"code":…,"message":…}}, with a stable
// lowerCamelCase code and the message in the user's language.
nlohmann::ordered_json jsonError(std::string_view code, std::string_view message);

}  // namespace vantorix
