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
        std::optional<std::string> definitionPath = "/usr/lib/systemd/system/vantorix-smartctl-helper.socket";
        HelperExecutable helperExecutable{"/usr/libexec/vantorix/vantorix-smartctl-helper", true};
        HelperServiceState state = HelperServiceState::notEnabled;
        // Outcome of enable(): nothing for success, which sets the state to `stateAfterEnabling`
        // and installs the program.
        std::optional<HelperServiceError> enableError{};
        HelperServiceState stateAfterEnabling = HelperServiceState::enabled;
        // Outcome of disable(): nothing for success, which sets the state to notEnabled; a failure
        // changes nothing.
        std::optional<HelperServiceError> disableError{};
    };

    struct Calls {
        int stateReads = 0, enables = 0, disables = 0;
    };

    explicit SubstituteHelperService(Script script) : script_(std::move(script)) {}

    Calls calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    HelperServiceBackend backend() const override { return HelperServiceBackend::systemd; }
    std::string mechanism() const override { return "substitute helper service"; }
    std::string definitionName() const override { return "the substitute unit file"; }
    std::optional<std::string> definitionPath() override {
        std::lock_guard lock(mutex_);
        return script_.definitionPath;
    }
    HelperExecutable helperExecutable() override {
        std::lock_guard lock(mutex_);
        return script_.helperExecutable;
    }
    HelperServiceState state() override {
        std::lock_guard lock(mutex_);
        ++calls_.stateReads;
        return script_.state;
    }
    Result<Unit, HelperServiceError> enable() override {
        std::lock_guard lock(mutex_);
        ++calls_.enables;
        if (script_.enableError) return Failure{*script_.enableError};
        script_.state = script_.stateAfterEnabling;
        script_.helperExecutable.exists = true;
        return Unit{};
    }
    Result<Unit, HelperServiceError> disable() override {
        std::lock_guard lock(mutex_);
        ++calls_.disables;
        if (script_.disableError) return Failure{*script_.disableError};
        script_.state = HelperServiceState::notEnabled;
        return Unit{};
    }
    std::string socketPath() override { return "/run/vantorix/smartctl-helper.sock"; }

private:
    mutable std::mutex mutex_;
    Script script_;
    Calls calls_;
};

}  // namespace vantorix::testing
