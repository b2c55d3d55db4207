#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "util/Result.h"

namespace vantorix {

// How the privileged SMART helper is run on this machine.
enum class HelperServiceBackend {
    systemd,     // its socket unit starts it on demand
    standalone,  // no systemd: a program running as root starts it as its own child
    external,    // someone else runs it at VANTORIX_HELPER_SOCKET
};

// "systemd", "standalone", "external": the names in status output and JSON.
std::string_view backendName(HelperServiceBackend backend);

// Whether this program may change what the system runs: the desktop app and `vantorix-cli helper
// enable|disable` may (through pkexec when not root); a read-only command only reports that an
// administrator has to.
struct RegistrationPolicy {
    bool mayRegister = true;
};

// Whether the helper can be asked.
enum class HelperServiceState {
    unitNotInstalled,    // its files are missing: the socket unit (systemd) or the helper program
    notEnabled,          // installed, not enabled; this process may enable it
    enabled,             // enabled and listening
    needsAdministrator,  // not enabled, and this process has no way to enable it
};

// "unitNotInstalled", "notEnabled", "enabled", "needsAdministrator" (JSON).
std::string_view stateName(HelperServiceState state);
// "unit not installed", "not enabled", "enabled", "needs an administrator" (logs).
std::string_view stateDescription(HelperServiceState state);

// Why enabling or disabling the helper failed.
enum class HelperServiceFailure {
    needsAdministrator,  // an administrator has to do it: no rights and no way to ask, or the password was not given
    commandFailed,       // systemctl (or pkexec) could not be run or failed
    helperDidNotStart,   // the helper child could not be started or did not listen
    notManagedHere,      // the helper is run by someone else
};

// "needs an administrator", "command failed", "helper did not start", "not managed here" (logs).
std::string_view failureName(HelperServiceFailure failure);

struct HelperServiceError {
    HelperServiceFailure failure = HelperServiceFailure::commandFailed;
    std::string description;  // one English line, for logs
    std::string output;       // what the failing command wrote on standard error, if anything
};

// The system's way of running the privileged helper: what state it is in, and how it is enabled
// and disabled. Every call reads the state afresh.
class HelperService {
public:
    virtual ~HelperService() = default;

    virtual HelperServiceBackend backend() const = 0;
    // What runs the helper, for logs ("systemd socket unit vantorix-smartctl-helper.socket").
    virtual std::string mechanism() const = 0;

    // The file the helper is enabled from, named for logs ("the unit file of
    // vantorix-smartctl-helper.socket", "the helper program"), and where it is: nothing when it is
    // not installed.
    virtual std::string definitionName() const = 0;
    virtual std::optional<std::string> definitionPath() = 0;

    // The helper program the service runs, and whether it is there. The path is empty when the
    // helper is run by someone else and its program is not known.
    struct HelperExecutable {
        std::string path;
        bool exists = false;
    };
    virtual HelperExecutable helperExecutable() = 0;

    virtual HelperServiceState state() = 0;
    virtual Result<Unit, HelperServiceError> enable() = 0;
    virtual Result<Unit, HelperServiceError> disable() = 0;

    // The socket the helper answers on (empty while a helper child is not running).
    virtual std::string socketPath() = 0;

protected:
    HelperService() = default;
    HelperService(const HelperService&) = default;
    HelperService& operator=(const HelperService&) = default;
};

}  // namespace vantorix
