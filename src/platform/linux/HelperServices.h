#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/HelperService.h"
#include "platform/linux/Subprocess.h"

namespace vantorix {

// The unit the helper is enabled from (its socket; the service is started by it).
inline constexpr std::string_view kHelperSocketUnit = "vantorix-smartctl-helper.socket";
inline constexpr std::string_view kHelperServiceUnit = "vantorix-smartctl-helper.service";

// Where this program's helper daemon is: beside the running program (a build tree) or in
// ../libexec/vantorix/ relative to it (an installation); the latter when neither exists.
std::string helperProgramBesideExecutable();

// The programs the systemd backend runs.
struct SystemdPrograms {
    std::string systemctl = "systemctl";
    std::string pkexec = "pkexec";
};

// systemd: the helper's units are installed with the program; enabling enables and starts the
// socket unit (through pkexec when not root), disabling disables and stops it.
class SystemdHelperService final : public HelperService {
public:
    SystemdHelperService(RegistrationPolicy policy, SystemdPrograms programs = SystemdPrograms(),
                         uid_t effectiveUserId = ::geteuid());

    HelperServiceBackend backend() const override { return HelperServiceBackend::systemd; }
    std::string mechanism() const override;
    std::string definitionName() const override;
    std::optional<std::string> definitionPath() override;
    HelperExecutable helperExecutable() override;
    HelperServiceState state() override;
    Result<Unit, HelperServiceError> enable() override { return systemctl("enable"); }
    Result<Unit, HelperServiceError> disable() override { return systemctl("disable"); }
    std::string socketPath() override;

private:
    // systemctl's answer for one property of a unit; nothing when systemctl cannot be run.
    std::optional<std::string> property(std::string_view unit, std::string_view name);
    bool mayChangeUnits() const;
    bool canAskForAdministrator() const;
    Result<Unit, HelperServiceError> systemctl(const std::string& verb);

    RegistrationPolicy policy_;
    SystemdPrograms programs_;
    uid_t effectiveUserId_;
};

// No systemd: a process running as root starts the helper itself, as its own child on a socket
// in a private folder, for the life of the process; any other process cannot have it.
class StandaloneHelperService final : public HelperService {
public:
    explicit StandaloneHelperService(std::string helperProgram, uid_t effectiveUserId = ::geteuid());
    // Stops the helper it started and removes its socket and folder.
    ~StandaloneHelperService() override;
    StandaloneHelperService(const StandaloneHelperService&) = delete;
    StandaloneHelperService& operator=(const StandaloneHelperService&) = delete;

    HelperServiceBackend backend() const override { return HelperServiceBackend::standalone; }
    std::string mechanism() const override;
    std::string definitionName() const override;
    std::optional<std::string> definitionPath() override;
    HelperExecutable helperExecutable() override;
    HelperServiceState state() override;
    Result<Unit, HelperServiceError> enable() override;
    Result<Unit, HelperServiceError> disable() override;
    std::string socketPath() override;

    // The helper's process id while it runs.
    std::optional<pid_t> helperProcessId();

private:
    void stopHelper();

    std::string helperProgram_;
    uid_t effectiveUserId_;
    std::mutex mutex_;
    std::optional<ChildProcess> child_;
    std::string folder_;  // the private folder of the running helper's socket
};

// A helper someone else runs at VANTORIX_HELPER_SOCKET: it counts as enabled while a root process
// listens there. Nothing is started, enabled or disabled.
class ExternalHelperService final : public HelperService {
public:
    explicit ExternalHelperService(std::string socketPath) : socketPath_(std::move(socketPath)) {}

    HelperServiceBackend backend() const override { return HelperServiceBackend::external; }
    std::string mechanism() const override;
    std::string definitionName() const override;
    std::optional<std::string> definitionPath() override { return socketPath_; }
    HelperExecutable helperExecutable() override { return {"", true}; }
    HelperServiceState state() override;
    Result<Unit, HelperServiceError> enable() override;
    Result<Unit, HelperServiceError> disable() override;
    std::string socketPath() override { return socketPath_; }

private:
    std::string socketPath_;
};

}  // namespace vantorix
