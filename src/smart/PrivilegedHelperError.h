#pragma once

#include <optional>
#include <string>

#include "platform/ServiceManager.h"

namespace vantorix {

// Why the helper could not be registered. Its description is English only: it goes to the log,
// never to the user.
class PrivilegedHelperError {
public:
    enum class Kind { smAppServiceRegistrationFailed, missingHelperLaunchdPlist };

    static PrivilegedHelperError smAppServiceRegistrationFailed(ServiceError underlying) {
        return PrivilegedHelperError(Kind::smAppServiceRegistrationFailed, std::move(underlying));
    }
    static PrivilegedHelperError missingHelperLaunchdPlist() {
        return PrivilegedHelperError(Kind::missingHelperLaunchdPlist, std::nullopt);
    }

    Kind kind() const { return kind_; }
    const std::optional<ServiceError>& underlying() const { return underlying_; }

    std::string description() const {
        if (kind_ == Kind::missingHelperLaunchdPlist) return "Missing helper LaunchDaemon plist inside application resources";
        return "SMAppService registration failed: " + underlying_->description;
    }

private:
    PrivilegedHelperError(Kind kind, std::optional<ServiceError> underlying)
        : kind_(kind), underlying_(std::move(underlying)) {}

    Kind kind_;
    std::optional<ServiceError> underlying_;
};

}  // namespace vantorix
