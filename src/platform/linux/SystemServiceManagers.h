#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/ServiceManager.h"
#include "platform/linux/Subprocess.h"

namespace vantorix {

// The unit the helper is registered from (its socket; the service is started by it).
inline constexpr std::string_view kHelperSocketUnit = "vantorix-smartctl-helper.socket";
inline constexpr std::string_view kHelperServiceUnit = "vantorix-smartctl-helper.service";

// Where this program's helper daemon is: beside the running program (a build tree) or in
// ../libexec/vantorix/ relative to it (an installation); the latter when neither exists.
std::string helperProgramBesideExecutable();

// How registration may be done: a program that may ask for administrator rights (the desktop
// app, `vantorix-cli helper enable`) registers the helper; one that may not (a read-only
// command) only reports that an administrator has to.
struct RegistrationPolicy {
    bool mayRegister = true;
};

// The programs the systemd backend runs.
struct SystemdPrograms {
    std::string systemctl = "systemctl";
    std::string pkexec = "pkexec";
};

// systemd: the helper's units are installed with the program; registering enables and starts the
// socket unit (through pkexec when not root), unregistering disables and stops it.
class SystemdServiceManager final : public ServiceManager {
public:
    using Programs = SystemdPrograms;

    SystemdServiceManager(RegistrationPolicy policy, Programs programs = Programs(), uid_t effectiveUserId = ::geteuid());

    std::string backendName() const override { return "systemd"; }
    std::optional<std::string> definitionPath(std::string_view definitionName) override;
    HelperExecutable helperExecutable() override;
    std::shared_ptr<DaemonService> daemonService(std::string_view definitionName) override;
    void openApprovalPage() override {}
    std::string socketPath() override;

private:
    class Service;
    // systemctl's answer for one property of a unit; nothing when systemctl cannot be run.
    std::optional<std::string> property(std::string_view unit, std::string_view name);
    bool canAskForAdministrator() const;

    RegistrationPolicy policy_;
    Programs programs_;
    uid_t effectiveUserId_;
};

// No service manager: a process running as root starts the helper itself, as its own child on a
// socket in a private folder, for the life of the process; any other process cannot have it.
class StandaloneServiceManager final : public ServiceManager {
public:
    StandaloneServiceManager(std::string helperProgram, uid_t effectiveUserId = ::geteuid());
    // Stops the helper it started and removes its socket and folder.
    ~StandaloneServiceManager() override;

    std::string backendName() const override { return "standalone"; }
    std::optional<std::string> definitionPath(std::string_view definitionName) override;
    HelperExecutable helperExecutable() override;
    std::shared_ptr<DaemonService> daemonService(std::string_view definitionName) override;
    void openApprovalPage() override {}
    std::string socketPath() override;

    // The helper's process id while it runs.
    std::optional<pid_t> helperProcessId();

private:
    class Service;
    int status();
    Result<Unit, ServiceError> startHelper();
    void stopHelper();

    std::string helperProgram_;
    uid_t effectiveUserId_;
    std::mutex mutex_;
    std::optional<ChildProcess> child_;
    std::string folder_;  // the private folder of the running helper's socket
};

// A helper someone else runs at VANTORIX_HELPER_SOCKET: it counts as registered while a root
// process listens there. Nothing is started, registered or removed.
class ExternalHelperServiceManager final : public ServiceManager {
public:
    explicit ExternalHelperServiceManager(std::string socketPath) : socketPath_(std::move(socketPath)) {}

    std::string backendName() const override { return "external"; }
    std::optional<std::string> definitionPath(std::string_view) override { return socketPath_; }
    HelperExecutable helperExecutable() override { return {"", true}; }
    std::shared_ptr<DaemonService> daemonService(std::string_view definitionName) override;
    void openApprovalPage() override {}
    std::string socketPath() override { return socketPath_; }

private:
    class Service;
    std::string socketPath_;
};

// The service manager of this system: external when VANTORIX_HELPER_SOCKET is set, systemd when it
// runs (/run/systemd/system exists), standalone otherwise.
std::shared_ptr<ServiceManager> makeSystemServiceManager(RegistrationPolicy policy);

}  // namespace vantorix
