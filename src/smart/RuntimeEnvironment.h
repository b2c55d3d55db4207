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

    // The rules applied to an environment. `sandboxed` tells whether the process runs in a
    // sandbox that forbids privileged helpers (Flatpak, Snap).
    static RuntimeEnvironment evaluate(const EnvironmentReader& environment, bool sandboxed);
    // The rules applied to this process.
    static RuntimeEnvironment current();

    // The reasons joined with ", ".
    std::string reasonsText() const;

    friend bool operator==(const RuntimeEnvironment&, const RuntimeEnvironment&) = default;
};

}  // namespace vantorix
