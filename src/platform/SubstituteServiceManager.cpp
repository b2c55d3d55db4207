#include "platform/SubstituteServiceManager.h"

namespace vantorix {

class SubstituteServiceManager::Service final : public DaemonService {
public:
    explicit Service(std::shared_ptr<SubstituteServiceManager> owner) : owner_(std::move(owner)) {}

    int status() override {
        std::lock_guard lock(owner_->mutex_);
        ++owner_->calls_.statusReads;
        return owner_->script_.status;
    }

    Result<Unit, ServiceError> registerService() override {
        std::lock_guard lock(owner_->mutex_);
        ++owner_->calls_.registrations;
        auto& script = owner_->script_;
        if (script.registerError) return Failure{*script.registerError};
        script.status = script.statusAfterRegistering;
        script.helperExecutable.exists = script.executableExistsAfterRegistering;
        return Unit{};
    }

    Result<Unit, ServiceError> unregisterService() override {
        std::lock_guard lock(owner_->mutex_);
        ++owner_->calls_.unregistrations;
        auto& script = owner_->script_;
        if (script.unregisterError) {
            if (script.statusAfterFailedUnregister) script.status = *script.statusAfterFailedUnregister;
            return Failure{*script.unregisterError};
        }
        script.status = static_cast<int>(ServiceStatus::notRegistered);
        return Unit{};
    }

private:
    std::shared_ptr<SubstituteServiceManager> owner_;
};

void SubstituteServiceManager::setScript(Script script) {
    std::lock_guard lock(mutex_);
    script_ = std::move(script);
}

SubstituteServiceManager::Script SubstituteServiceManager::script() const {
    std::lock_guard lock(mutex_);
    return script_;
}

SubstituteServiceManager::Calls SubstituteServiceManager::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::optional<std::string> SubstituteServiceManager::definitionPath(std::string_view) {
    std::lock_guard lock(mutex_);
    ++calls_.definitionLookups;
    return script_.definitionPath;
}

ServiceManager::HelperExecutable SubstituteServiceManager::helperExecutable() {
    std::lock_guard lock(mutex_);
    return script_.helperExecutable;
}

std::shared_ptr<DaemonService> SubstituteServiceManager::daemonService(std::string_view) {
    {
        std::lock_guard lock(mutex_);
        ++calls_.serviceObjects;
    }
    return std::make_shared<Service>(shared_from_this());
}

void SubstituteServiceManager::openApprovalPage() {
    std::lock_guard lock(mutex_);
    ++calls_.approvalPages;
}

std::string SubstituteServiceManager::socketPath() {
    std::lock_guard lock(mutex_);
    return script_.socketPath;
}

}  // namespace vantorix
