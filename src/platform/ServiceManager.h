#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "util/Result.h"

namespace vantorix {

// The registration state of a daemon service. Backends may report values outside the four named
// ones; they are logged by number.
enum class ServiceStatus : int { notRegistered = 0, enabled = 1, requiresApproval = 2, notFound = 3 };

// "notRegistered", "enabled", "requiresApproval", "notFound", or the number for any other value.
std::string serviceStatusName(int status);

// A failure of the service manager: its domain, a code within it, a description and whatever else
// the manager said (the output of a command that failed, for instance).
struct ServiceError {
    std::string domain;
    std::int64_t code = 0;
    std::string description;
    std::string userInfo;
};

// The domain of the service manager's own failures, and its code for "an administrator has to
// approve the helper first".
inline constexpr std::string_view kServiceManagerErrorDomain = "SMAppServiceErrorDomain";
inline constexpr std::int64_t kApprovalRequiredCode = 1;

// One daemon service of the service manager.
class DaemonService {
public:
    virtual ~DaemonService() = default;
    // One of ServiceStatus's values, or another number.
    virtual int status() = 0;
    virtual Result<Unit, ServiceError> registerService() = 0;
    virtual Result<Unit, ServiceError> unregisterService() = 0;

protected:
    DaemonService() = default;
    DaemonService(const DaemonService&) = default;
    DaemonService& operator=(const DaemonService&) = default;
};

// The system facility that runs privileged daemons on the program's behalf.
class ServiceManager {
public:
    virtual ~ServiceManager() = default;

    // A short name of the mechanism ("systemd", "standalone", "external", ...), for status output.
    virtual std::string backendName() const = 0;

    // Where the helper's service definition is; nothing when it cannot be found.
    virtual std::optional<std::string> definitionPath(std::string_view definitionName) = 0;

    // The helper program the service runs, and whether it is there. The path is empty when the
    // helper is run by someone else and its program is not known.
    struct HelperExecutable {
        std::string path;
        bool exists = false;
    };
    virtual HelperExecutable helperExecutable() = 0;

    // A service object for a definition; a new object reads the state afresh.
    virtual std::shared_ptr<DaemonService> daemonService(std::string_view definitionName) = 0;

    // Shows the user where the helper is approved, where the system has such a place.
    virtual void openApprovalPage() = 0;

    // The socket the helper answers on.
    virtual std::string socketPath() = 0;

protected:
    ServiceManager() = default;
    ServiceManager(const ServiceManager&) = default;
    ServiceManager& operator=(const ServiceManager&) = default;
};

}  // namespace vantorix
