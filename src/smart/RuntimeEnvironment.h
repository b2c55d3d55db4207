#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantorix {

// Whether this process may ask for privileged operations at all. Fixed for the life of a process.
struct RuntimeEnvironment {
    bool allowsPrivilegedOperations = true;
    std::vector<std::string> restrictionReasons;  // in the order the rules are checked

    using EnvironmentReader = std::function<std::optional<std::string>(std::string_view name)>;

    // The rules applied to an environment: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS=1, a Flatpak
    // sandbox (FLATPAK_ID set, or `flatpakInfoPresent`: /.flatpak-info exists), a Snap sandbox
    // (SNAP set). Neither sandbox lets a confined program reach a system daemon's socket.
    static RuntimeEnvironment evaluate(const EnvironmentReader& environment, bool flatpakInfoPresent);
    // The rules applied to this process.
    static RuntimeEnvironment current();

    // The reasons joined with ", ".
    std::string reasonsText() const;

    friend bool operator==(const RuntimeEnvironment&, const RuntimeEnvironment&) = default;
};

}  // namespace vantorix
