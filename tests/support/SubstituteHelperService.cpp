#include "support/SubstituteHelperService.h"

namespace vantorix::testing {

SubstituteHelperService::Calls SubstituteHelperService::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

HelperServiceBackend SubstituteHelperService::backend() const {
    std::lock_guard lock(mutex_);
    return script_.backend;
}

std::optional<std::string> SubstituteHelperService::definitionPath() {
    std::lock_guard lock(mutex_);
    ++calls_.definitionLookups;
    return script_.definitionPath;
}

HelperService::HelperExecutable SubstituteHelperService::helperExecutable() {
    std::lock_guard lock(mutex_);
    return script_.helperExecutable;
}

HelperServiceState SubstituteHelperService::state() {
    std::lock_guard lock(mutex_);
    ++calls_.stateReads;
    return script_.state;
}

Result<Unit, HelperServiceError> SubstituteHelperService::enable() {
    std::lock_guard lock(mutex_);
    ++calls_.enables;
    if (script_.enableError) return Failure{*script_.enableError};
    script_.state = script_.stateAfterEnabling;
    script_.helperExecutable.exists = script_.executableExistsAfterEnabling;
    return Unit{};
}

Result<Unit, HelperServiceError> SubstituteHelperService::disable() {
    std::lock_guard lock(mutex_);
    ++calls_.disables;
    if (script_.disableError) {
        if (script_.stateAfterFailedDisable) script_.state = *script_.stateAfterFailedDisable;
        return Failure{*script_.disableError};
    }
    script_.state = HelperServiceState::notEnabled;
    return Unit{};
}

std::string SubstituteHelperService::socketPath() {
    std::lock_guard lock(mutex_);
    return script_.socketPath;
}

}  // namespace vantorix::testing
