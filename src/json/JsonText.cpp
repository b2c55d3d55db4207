#include "json/JsonText.h"

namespace vantorix {

std::string jsonText(const nlohmann::ordered_json& document, int indent) {
    // With the replacing error handler, the serializer has nothing left to throw for.
    return document.dump(indent, ' ', /*ensure_ascii=*/false, nlohmann::ordered_json::error_handler_t::replace);
}

nlohmann::ordered_json jsonError(std::string_view code, std::string_view message) {
    return nlohmann::ordered_json{{"error", {{"code", code}, {"message", message}}}};
}

}  // namespace vantorix
