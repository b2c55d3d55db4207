#pragma once

#include <optional>
#include <string>

#include "platform/HelperService.h"

namespace vantorix {

// Why the helper could not be enabled. Its description is English only: it goes to the log,
// never to the user.
class PrivilegedHelperError {
public:
    enum class Kind {
        registrationFailed,  // enabling (or disabling a stale registration) failed
        helperNotInstalled,  // the file the helper is enabled from (its unit file, under systemd) is missing
    };

    static PrivilegedHelperError registrationFailed(HelperServiceError underlying) {
        std::string detail = underlying.description;
        return {Kind::registrationFailed, std::move(detail), std::move(underlying)};
    }
    // `what` names the missing file ("the unit file of vantorix-smartctl-helper.socket").
    static PrivilegedHelperError helperNotInstalled(std::string what) {
        return {Kind::helperNotInstalled, std::move(what), std::nullopt};
    }

    Kind kind() const { return kind_; }
    const std::optional<HelperServiceError>& underlying() const { return underlying_; }

    std::string description() const {
        if (kind_ == Kind::helperNotInstalled) return "Helper not installed: " + detail_ + " is missing";
        return "Registration failed: " + detail_;
    }

private:
    PrivilegedHelperError(Kind kind, std::string detail, std::optional<HelperServiceError> underlying)
        : kind_(kind), detail_(std::move(detail)), underlying_(std::move(underlying)) {}

    Kind kind_;
    std::string detail_;
    std::optional<HelperServiceError> underlying_;
};

}  // namespace vantorix
