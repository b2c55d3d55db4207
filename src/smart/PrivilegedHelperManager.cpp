#include "smart/PrivilegedHelperManager.h"

#include <unistd.h>

#include "concurrency/MainThreadCall.h"
#include "log/Log.h"

namespace vantorix {
namespace {

const log::Logger& managerLogger() {
    static const log::Logger& instance = log::logger("PrivilegedHelperManager");
    return instance;
}

// A state that, after a failed disable, shows the stale registration gone.
bool isUninstalled(HelperServiceState state) {
    return state == HelperServiceState::notEnabled || state == HelperServiceState::unitNotInstalled;
}

std::string programText(const HelperService::HelperExecutable& executable) {
    return executable.path.empty() ? std::string("(run by someone else)") : executable.path;
}

}  // namespace

std::shared_ptr<PrivilegedHelperManager> PrivilegedHelperManager::create(Dependencies dependencies) {
    return std::shared_ptr<PrivilegedHelperManager>(new PrivilegedHelperManager(std::move(dependencies)));
}

PrivilegedHelperManager::PrivilegedHelperManager(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      stateQueue_("com.vantorix.PrivilegedHelperManager.state", QualityOfService::userInitiated) {
    if (!dependencies_.effectiveUserId) dependencies_.effectiveUserId = [] { return unsigned{::geteuid()}; };
    if (!runtimeEnvironment().allowsPrivilegedOperations) {
        managerLogger().notice("Privileged operations disabled for environment: {}",
                               runtimeEnvironment().reasonsText());
    }
}

PrivilegedHelperManager::~PrivilegedHelperManager() = default;

std::optional<bool> PrivilegedHelperManager::cachedInstallationState() {
    return stateQueue_.sync([this] { return cachedInstallationState_; });
}

bool PrivilegedHelperManager::ensureHelperInstalledIfNeeded() {
    auto& main = *dependencies_.mainExecutor;
    const bool onMain = main.isMainThread();
    managerLogger().debug("ensureHelperInstalledIfNeeded invoked on main thread? {}", onMain);
    if (!runtimeEnvironment().allowsPrivilegedOperations) {
        managerLogger().notice("Skipped helper installation because privileged operations are disabled ({}).",
                               runtimeEnvironment().reasonsText());
        stateQueue_.sync([this] { cachedInstallationState_ = false; });
        return false;
    }
    if (onMain) {
        managerLogger().debug("Executing helper installation directly on the main thread.");
        return runInstallationWorkflow();
    }
    managerLogger().debug("Dispatching helper installation onto the main thread synchronously.");
    return callOnMainThread(main, [this] { return runInstallationWorkflow(); }).value_or(false);
}

bool PrivilegedHelperManager::runInstallationWorkflow() {
    if (const auto cached = cachedInstallationState()) {
        managerLogger().debug("Using cached helper installation state: {}", *cached);
        return *cached;
    }
    if (inspectRegistration()) {
        managerLogger().notice("Privileged helper already enabled ({}); caching installation flag.",
                               helperService().mechanism());
        stateQueue_.sync([this] { cachedInstallationState_ = true; });
        return true;
    }
    const auto inFlight = stateQueue_.sync([this] { return std::make_pair(isInstalling_, cachedInstallationState_); });
    if (inFlight.first) {
        managerLogger().notice(
            "Another helper installation is in progress; answering with its cached result when known.");
        return inFlight.second.value_or(false);
    }
    const bool onMain = dependencies_.mainExecutor->isMainThread();
    stateQueue_.sync([this] { isInstalling_ = true; });
    managerLogger().debug("Marking helper installation as in-flight on main thread: {}", onMain);
    managerLogger().notice("Starting privileged helper installation via {}.", helperService().mechanism());
    auto registration = registerHelper();
    if (!registration.ok()) {
        managerLogger().error("Failed to install privileged helper: {}", registration.error().description());
        stateQueue_.sync([this] { cachedInstallationState_ = false; });
        clearInstallingFlag();
        return false;
    }
    managerLogger().notice("Successfully installed privileged helper via {}.", helperService().mechanism());
    stateQueue_.sync([this] { cachedInstallationState_ = true; });
    clearInstallingFlag();
    return true;
}

void PrivilegedHelperManager::clearInstallingFlag() {
    const auto cached = stateQueue_.sync([this] {
        isInstalling_ = false;
        return cachedInstallationState_;
    });
    managerLogger().debug("Clearing in-flight installation flag. Cached helper state = {}", cached.value_or(false));
}

bool PrivilegedHelperManager::inspectRegistration() {
    auto& service = helperService();
    if (auto located = locateDefinition(); !located.ok()) {
        managerLogger().error("Failed to inspect the helper's registration: {}", located.error().description());
        return false;
    }
    const HelperServiceState state = service.state();
    const auto executable = service.helperExecutable();
    managerLogger().notice("Helper state ({}): {}", service.mechanism(), stateDescription(state));
    managerLogger().notice("Helper program {} present on disk? {}", programText(executable), executable.exists);
    switch (state) {
        case HelperServiceState::notEnabled: managerLogger().notice("Helper not enabled yet."); return false;
        case HelperServiceState::enabled:
            managerLogger().notice("Helper is enabled; it is started on demand and should answer normally.");
            if (executable.exists) return true;
            managerLogger().error("Helper enabled but its program {} is missing; will trigger reinstall.",
                                  programText(executable));
            return false;
        case HelperServiceState::needsAdministrator:
            managerLogger().notice("Helper needs an administrator to enable it; awaiting approval.");
            promptForApproval();
            return false;
        case HelperServiceState::unitNotInstalled:
            managerLogger().error("Helper unit not installed ({}): {} is missing; check the installation.",
                                  service.mechanism(), service.definitionName());
            return false;
    }
    return false;
}

Result<Unit, PrivilegedHelperError> PrivilegedHelperManager::registerHelper() {
    auto& service = helperService();
    if (auto located = locateDefinition(); !located.ok()) return Failure{located.error()};
    HelperServiceState state = service.state();
    const auto executable = service.helperExecutable();
    managerLogger().notice("Attempting helper registration with current state: {}", stateDescription(state));
    managerLogger().notice("Effective user ID before helper registration: {}", dependencies_.effectiveUserId());

    if (state == HelperServiceState::enabled) {
        if (executable.exists) {
            managerLogger().notice("Helper already enabled and its program present; skipping re-installation.");
            return Unit{};
        }
        managerLogger().notice(
            "Stale helper registration: enabled, but its program {} is missing; disabling it to force a reinstall.",
            programText(executable));
        auto removal = service.disable();
        if (removal.ok()) {
            managerLogger().notice("Successfully disabled the stale helper registration; proceeding with a fresh one.");
        } else {
            const bool stillPresent = service.helperExecutable().exists;
            std::optional<HelperServiceState> freshState;
            if (auto located = locateDefinition(); located.ok()) {
                freshState = service.state();
                managerLogger().notice("Helper state observed after the failed disable: {}",
                                       stateDescription(*freshState));
            } else {
                managerLogger().error("Unable to refresh the helper state after the failed disable: {}",
                                      located.error().description());
            }
            if (!freshState || !isUninstalled(*freshState) || stillPresent) {
                managerLogger().error("Failed to disable the stale helper registration before reinstalling: {}",
                                      removal.error().description);
                return Failure{PrivilegedHelperError::registrationFailed(removal.error())};
            }
            managerLogger().notice(
                "Disabling reported a failure but the helper is already gone; continuing with reinstall.");
        }
        if (auto located = locateDefinition(); !located.ok()) return Failure{located.error()};
        state = service.state();
        managerLogger().notice("Refreshed helper state after disabling: {}", stateDescription(state));
    }

    managerLogger().debug("Enabling the helper via {}", service.mechanism());
    auto registration = service.enable();
    if (registration.ok()) {
        managerLogger().debug("Enabled the helper via {}", service.mechanism());
        if (service.state() == HelperServiceState::needsAdministrator) {
            managerLogger().notice("Privileged helper still needs an administrator to enable it.");
            promptForApproval();
        }
        return Unit{};
    }
    const HelperServiceError& error = registration.error();
    if (error.failure == HelperServiceFailure::needsAdministrator) {
        managerLogger().notice("Enabling the helper needs an administrator; posting the approval notification.");
        promptForApproval();
    }
    managerLogger().error("Enabling the helper failed ({}): {}{}", failureName(error.failure), error.description,
                          error.output.empty() ? std::string() : "; output: " + error.output);
    return Failure{PrivilegedHelperError::registrationFailed(error)};
}

Result<Unit, PrivilegedHelperError> PrivilegedHelperManager::locateDefinition() {
    auto& service = helperService();
    const auto path = service.definitionPath();
    if (!path) {
        managerLogger().error("Unable to locate {} ({}).", service.definitionName(), service.mechanism());
        return Failure{PrivilegedHelperError::helperNotInstalled(service.definitionName())};
    }
    managerLogger().debug("Resolved {} at path: {}", service.definitionName(), *path);
    return Unit{};
}

void PrivilegedHelperManager::promptForApproval() {
    const bool alreadyPrompted = stateQueue_.sync([this] { return std::exchange(hasPromptedForApproval_, true); });
    if (alreadyPrompted) {
        managerLogger().debug("Skipping duplicate approval notification for the helper.");
        return;
    }
    dependencies_.mainExecutor->post([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->dependencies_.notificationCenter->post(kApprovalNotification);
    });
}

}  // namespace vantorix
