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

// Flatpak marks its sandboxes with FLATPAK_ID and /.flatpak-info, Snap with SNAP; neither lets a
// confined program reach a system daemon's socket or register one.
bool runsInSandbox(const RuntimeEnvironment::EnvironmentReader& environment) {
    struct stat info {};
    return environment("FLATPAK_ID").has_value() || environment("SNAP").has_value() ||
           ::stat("/.flatpak-info", &info) == 0;
}

}  // namespace

RuntimeEnvironment RuntimeEnvironment::evaluate(const EnvironmentReader& environment, bool sandboxed) {
    RuntimeEnvironment result;
    const auto equalsOne = [&environment](std::string_view name) { return environment(name) == "1"; };
    const auto present = [&environment](std::string_view name) { return environment(name).has_value(); };
    auto& reasons = result.restrictionReasons;
    if (equalsOne("VANTORIX_DISABLE_PRIVILEGED_OPERATIONS")) {
        reasons.emplace_back("Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS");
    }
    if (equalsOne("XCODE_RUNNING_FOR_PREVIEWS")) reasons.emplace_back("SwiftUI Preview runtime");
    if (present("XCTestConfigurationFilePath")) reasons.emplace_back("XCTest session detected");
    if (equalsOne("XCODE_RUNNING_FOR_TESTS")) reasons.emplace_back("Xcode test harness");
    if (present("SIMULATOR_DEVICE_NAME")) reasons.emplace_back("Simulator environment");
    if (present("APP_SANDBOX_CONTAINER_ID") || sandboxed) reasons.emplace_back("App Sandbox entitlement active");
    result.allowsPrivilegedOperations = reasons.empty();
    return result;
}

RuntimeEnvironment RuntimeEnvironment::current() {
    return evaluate(processVariable, runsInSandbox(processVariable));
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
