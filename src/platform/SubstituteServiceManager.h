#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/ServiceManager.h"

namespace vantorix {

// A service manager for tests: its state is set by the test, registration outcomes are scripted,
// and every call is counted.
class SubstituteServiceManager final : public ServiceManager,
                                       public std::enable_shared_from_this<SubstituteServiceManager> {
public:
    struct Script {
        std::optional<std::string> definitionPath = "/usr/lib/systemd/system/vantorix-smartctl-helper.socket";
        HelperExecutable helperExecutable{"/usr/libexec/vantorix/vantorix-smartctl-helper", true};
        int status = static_cast<int>(ServiceStatus::notRegistered);
        // Outcome of registerService(): nothing for success, which sets the status to
        // `statusAfterRegistering`.
        std::optional<ServiceError> registerError;
        int statusAfterRegistering = static_cast<int>(ServiceStatus::enabled);
        // Outcome of unregisterService(): nothing for success, which sets the status to notRegistered.
        std::optional<ServiceError> unregisterError;
        // The status a failed unregisterService() leaves behind (unchanged when nothing).
        std::optional<int> statusAfterFailedUnregister;
        // Whether the helper program is present after a successful registration.
        bool executableExistsAfterRegistering = true;
        std::string socketPath = "/run/vantorix/smartctl-helper.sock";
    };

    struct Calls {
        int definitionLookups = 0;
        int serviceObjects = 0;
        int statusReads = 0;
        int registrations = 0;
        int unregistrations = 0;
        int approvalPages = 0;
    };

    explicit SubstituteServiceManager(Script script) : script_(std::move(script)) {}

    void setScript(Script script);
    Script script() const;
    Calls calls() const;

    std::string backendName() const override { return "substitute"; }
    std::optional<std::string> definitionPath(std::string_view definitionName) override;
    HelperExecutable helperExecutable() override;
    std::shared_ptr<DaemonService> daemonService(std::string_view definitionName) override;
    void openApprovalPage() override;
    std::string socketPath() override;

private:
    class Service;

    mutable std::mutex mutex_;
    Script script_;
    Calls calls_;
};

}  // namespace vantorix
