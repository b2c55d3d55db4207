#include "smart/RuntimeEnvironment.h"

#include <sys/stat.h>

#include <cstdlib>

namespace vantorix {
namespace {

std::optional<std::string> processVariable(std::string_view name) {
    const char* value = std::getenv(std::string(name).c_str());
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

}  // namespace

RuntimeEnvironment RuntimeEnvironment::evaluate(const EnvironmentReader& environment, bool flatpakInfoPresent) {
    RuntimeEnvironment result;
    auto& reasons = result.restrictionReasons;
    // Exactly "1": " 1", "true" or "yes" do not count.
    if (environment("VANTORIX_DISABLE_PRIVILEGED_OPERATIONS") == "1") {
        reasons.emplace_back("Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS");
    }
    if (environment("FLATPAK_ID").has_value() || flatpakInfoPresent)
        reasons.emplace_back("running in a Flatpak sandbox");
    if (environment("SNAP").has_value()) reasons.emplace_back("running in a Snap sandbox");
    result.allowsPrivilegedOperations = reasons.empty();
    return result;
}

RuntimeEnvironment RuntimeEnvironment::current() {
    struct stat info {};
    return evaluate(processVariable, ::stat("/.flatpak-info", &info) == 0);
}

std::string RuntimeEnvironment::reasonsText() const {
    std::string text;
    for (const auto& reason : restrictionReasons) {
        if (!text.empty()) text += ", ";
        text += reason;
    }
    return text;
}

}  // namespace vantorix
