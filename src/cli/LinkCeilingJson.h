#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "volumes/LinkCeiling.h"

namespace vantorix::cli {

// {"kind", "description", "bytesPerSecond", "warning"}, or null when the link has no figures.
inline nlohmann::ordered_json linkCeilingJson(const std::optional<LinkCeiling>& link) {
    if (!link) return nullptr;
    const auto ceiling = ceilingBytesPerSecond(*link);
    const auto warning = slowLinkWarning(*link);
    return nlohmann::ordered_json{{"kind", linkKindName(link->kind())},
                                  {"description", linkDescription(*link)},
                                  {"bytesPerSecond", ceiling ? nlohmann::ordered_json(*ceiling) : nullptr},
                                  {"warning", warning ? nlohmann::ordered_json(*warning) : nullptr}};
}

}  // namespace vantorix::cli
