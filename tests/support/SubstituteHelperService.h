#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "platform/HelperService.h"

namespace vantorix::testing {

// A helper service for tests: its state is set by the test, the outcomes of enabling and
// disabling are scripted, and every call is counted.
class SubstituteHelperService final : public HelperService {
public:
    struct Script {
        HelperServiceBackend backend = HelperServiceBackend::systemd;
        std::optional<std::string> definitionPath = "/usr/lib/systemd/system/vantorix-smartctl-helper.socket";
        HelperExecutable helperExecutable{"/usr/libexec/vantorix/vantorix-smartctl-helper", true};
        HelperServiceState state = HelperServiceState::notEnabled;
        // Outcome of enable(): nothing for success, which sets the state to `stateAfterEnabling`
        // and the program's presence to `executableExistsAfterEnabling`.
        std::optional<HelperServiceError> enableError;
        HelperServiceState stateAfterEnabling = HelperServiceState::enabled;
        bool executableExistsAfterEnabling = true;
        // Outcome of disable(): nothing for success, which sets the state to notEnabled.
        std::optional<HelperServiceError> disableError;
        // The state a failed disable() leaves behind (unchanged when nothing).
        std::optional<HelperServiceState> stateAfterFailedDisable;
        std::string socketPath = "/run/vantorix/smartctl-helper.sock";
    };

    struct Calls {
        int definitionLookups = 0;
        int stateReads = 0;
        int enables = 0;
        int disables = 0;
    };

    explicit SubstituteHelperService(Script script) : script_(std::move(script)) {}

    Calls calls() const;

    HelperServiceBackend backend() const override;
    std::string mechanism() const override { return "substitute helper service"; }
    std::string definitionName() const override { return "the substitute unit file"; }
    std::optional<std::string> definitionPath() override;
    HelperExecutable helperExecutable() override;
    HelperServiceState state() override;
    Result<Unit, HelperServiceError> enable() override;
    Result<Unit, HelperServiceError> disable() override;
    std::string socketPath() override;

private:
    mutable std::mutex mutex_;
    Script script_;
    Calls calls_;
};

}  // namespace vantorix::testing
