#include "smart/PrivilegedHelperManager.h"

#include <unistd.h>

#include "concurrency/MainThreadCall.h"
#include "log/Log.h"

namespace vantorix {
namespace {

const log::Logger& logger() {
    static const log::Logger& instance = log::logger("PrivilegedHelperManager");
    return instance;
}

bool isUninstalled(int status) {
    return status == static_cast<int>(ServiceStatus::notRegistered) || status == static_cast<int>(ServiceStatus::notFound);
}

bool isKnownStatus(int status) {
    return status >= static_cast<int>(ServiceStatus::notRegistered) && status <= static_cast<int>(ServiceStatus::notFound);
}

}  // namespace

std::shared_ptr<PrivilegedHelperManager> PrivilegedHelperManager::create(Dependencies dependencies) {
    return std::shared_ptr<PrivilegedHelperManager>(new PrivilegedHelperManager(std::move(dependencies)));
}

PrivilegedHelperManager::PrivilegedHelperManager(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      stateQueue_("com.vantorix.PrivilegedHelperManager.state", QualityOfService::userInitiated) {
    if (!dependencies_.effectiveUserId) dependencies_.effectiveUserId = [] { return static_cast<unsigned>(::geteuid()); };
    if (!runtimeEnvironment().allowsPrivilegedOperations) {
        logger().notice("Privileged operations disabled for environment: {}", runtimeEnvironment().reasonsText());
    }
}

PrivilegedHelperManager::~PrivilegedHelperManager() = default;

std::optional<bool> PrivilegedHelperManager::cachedInstallationState() {
    return stateQueue_.sync([this] { return cachedInstallationState_; });
}

bool PrivilegedHelperManager::ensureHelperInstalledIfNeeded() {
    auto& main = *dependencies_.mainExecutor;
    const bool onMain = main.isMainThread();
    logger().debug("ensureHelperInstalledIfNeeded invoked on main thread? {}", onMain);
    if (!runtimeEnvironment().allowsPrivilegedOperations) {
        logger().notice("Skipped helper installation because privileged operations are disabled ({}).",
                        runtimeEnvironment().reasonsText());
        stateQueue_.sync([this] { cachedInstallationState_ = false; });
        return false;
    }
    if (onMain) {
        logger().debug("Executing helper installation directly on the main thread.");
        return runInstallationWorkflow();
    }
    logger().debug("Dispatching helper installation onto the main thread synchronously.");
    return callOnMainThread(main, [this] { return runInstallationWorkflow(); }).value_or(false);
}

bool PrivilegedHelperManager::runInstallationWorkflow() {
    if (const auto cached = cachedInstallationState()) {
        logger().debug("Using cached helper installation state: {}", *cached);
        return *cached;
    }
    if (inspectRegistration()) {
        logger().notice("Privileged helper already registered with launchd; caching installation flag.");
        stateQueue_.sync([this] { cachedInstallationState_ = true; });
        return true;
    }
    const auto inFlight = stateQueue_.sync([this] { return std::make_pair(isInstalling_, cachedInstallationState_); });
    if (inFlight.first) {
        logger().notice("Another installation attempt is active; deferring to cached result once available.");
        logger().notice("Installation already in progress; waiting for completion result.");
        return inFlight.second.value_or(false);
    }
    const bool onMain = dependencies_.mainExecutor->isMainThread();
    stateQueue_.sync([this] { isInstalling_ = true; });
    logger().debug("Marking helper installation as in-flight on main thread: {}", onMain);
    logger().notice("Starting privileged helper installation workflow via SMAppService.");
    auto registration = registerHelper();
    if (!registration.ok()) {
        logger().error("Failed to install privileged helper1: {}", registration.error().description());
        stateQueue_.sync([this] { cachedInstallationState_ = false; });
        clearInstallingFlag();
        return false;
    }
    logger().notice("Successfully installed privileged helper via SMAppService.");
    stateQueue_.sync([this] { cachedInstallationState_ = true; });
    clearInstallingFlag();
    return true;
}

void PrivilegedHelperManager::clearInstallingFlag() {
    const auto cached = stateQueue_.sync([this] {
        isInstalling_ = false;
        return cachedInstallationState_;
    });
    logger().debug("Clearing in-flight installation flag. Cached helper state = {}", cached.value_or(false));
}

bool PrivilegedHelperManager::inspectRegistration() {
    auto service = serviceObject();
    if (!service.ok()) {
        logger().error("Failed to inspect helper registration via SMAppService: {}", service.error().description());
        return false;
    }
    const int status = service.value()->status();
    const auto executable = serviceManager().helperExecutable();
    logger().debug("Resolved helper binary path (bundle) {}; exists? {}", executable.path, executable.exists);
    logger().notice("SMAppService status for helper: {}", serviceStatusName(status));
    logger().notice("Helper binary present on disk? {}", executable.exists);
    switch (status) {
        case static_cast<int>(ServiceStatus::notRegistered):
            logger().notice("Helper service not registered with launchd yet.");
            return false;
        case static_cast<int>(ServiceStatus::enabled):
            logger().notice("Helper registration state is enabled; launchd should manage the helper normally.");
            if (executable.exists) return true;
            logger().error("Helper marked enabled but binary missing under /Library/PrivilegedHelperTools; will trigger reinstall.");
            return false;
        case static_cast<int>(ServiceStatus::requiresApproval):
            logger().notice("Helper registration pending user approval; awaiting confirmation inside System Settings.");
            logger().notice("Privileged helper awaiting user approval inside System Settings → General → Login Items.");
            promptForApproval();
            return false;
        case static_cast<int>(ServiceStatus::notFound):
            logger().error("Helper service definition not found; check bundle resources and plist name.");
            return false;
        default:
            logger().error("Encountered uncommon helper status ({}).", serviceStatusName(status));
            logger().error("Unhandled SMAppService status encountered ({}); assuming helper not installed.",
                           serviceStatusName(status));
            return false;
    }
}

Result<Unit, PrivilegedHelperError> PrivilegedHelperManager::registerHelper() {
    auto service = serviceObject();
    if (!service.ok()) return Failure{service.error()};
    std::shared_ptr<DaemonService> daemon = service.value();
    const int status = daemon->status();
    const bool executablePresent = serviceManager().helperExecutable().exists;
    logger().notice("Attempting helper registration with current status: {}", serviceStatusName(status));
    logger().notice("Effective user ID before helper registration: {}", dependencies_.effectiveUserId());

    if (status == static_cast<int>(ServiceStatus::enabled)) {
        if (executablePresent) {
            logger().notice("Helper already registered and binary present; skipping re-installation.");
            return Unit{};
        }
        logger().notice("Helper reported enabled but binary missing; attempting SMAppService.register() to restore installation.");
        logger().notice("Detected stale helper registration without binary; unregistering existing SMAppService to force reinstall.");
        auto removal = daemon->unregisterService();
        if (removal.ok()) {
            logger().notice("Successfully removed stale launchd registration; proceeding with fresh helper registration.");
        } else {
            const bool stillPresent = serviceManager().helperExecutable().exists;
            std::optional<int> freshStatus;
            auto fresh = serviceObject();
            if (fresh.ok()) {
                freshStatus = fresh.value()->status();
                logger().notice("Helper status observed after unregister failure: {}", serviceStatusName(*freshStatus));
            } else {
                logger().error("Unable to refresh helper status after unregister failure: {}", fresh.error().description());
            }
            bool uninstalled = false;
            if (freshStatus) {
                if (!isKnownStatus(*freshStatus)) {
                    logger().notice("Encountered unknown SMAppService.Status when checking uninstall state; defaulting to not installed.");
                    uninstalled = true;
                } else {
                    uninstalled = isUninstalled(*freshStatus);
                }
            }
            if (!uninstalled || stillPresent) {
                logger().error("Failed to unregister stale helper before reinstall: {}", removal.error().description);
                return Failure{PrivilegedHelperError::smAppServiceRegistrationFailed(removal.error())};
            }
            logger().notice("SMAppService.unregister() reported a failure but helper is already absent; continuing with reinstall.");
        }
        auto refreshed = serviceObject();
        if (!refreshed.ok()) return Failure{refreshed.error()};
        daemon = refreshed.value();
        logger().notice("Refreshed SMAppService after unregister; new status: {}", serviceStatusName(daemon->status()));
    }

    logger().debug("will register");
    auto registration = daemon->registerService();
    if (registration.ok()) {
        logger().debug("did register");
        if (daemon->status() == static_cast<int>(ServiceStatus::requiresApproval)) {
            logger().notice("Privileged helper requires additional approval inside System Settings → General → Login Items.");
            promptForApproval();
        }
        return Unit{};
    }
    const ServiceError& error = registration.error();
    if (error.domain == kServiceManagerErrorDomain && error.code == kApprovalRequiredCode) {
        logger().notice(
            "Helper registration blocked by Login Items approval (SMAppServiceErrorDomain code=1). Prompting user to approve in System Settings.");
        promptForApproval();
    } else {
        logger().error("Failed to install privileged helper2: {}", error.description);
    }
    logger().error("SMAppService.register() threw NSError with domain: {}, code: {}, userInfo: {}", error.domain,
                   error.code, error.userInfo);
    return Failure{PrivilegedHelperError::smAppServiceRegistrationFailed(error)};
}

Result<std::shared_ptr<DaemonService>, PrivilegedHelperError> PrivilegedHelperManager::serviceObject() {
    const auto path = serviceManager().definitionPath(kHelperDefinitionName);
    if (!path) {
        logger().error("Unable to locate helper launchd plist under Contents/Library/LaunchDaemons.");
        return Failure{PrivilegedHelperError::missingHelperLaunchdPlist()};
    }
    logger().debug("Resolved helper launchd plist at path: {}", *path);
    logger().debug("Creating daemon service object from definition {}", kHelperDefinitionName);
    return serviceManager().daemonService(kHelperDefinitionName);
}

void PrivilegedHelperManager::promptForApproval() {
    const bool alreadyPrompted = stateQueue_.sync([this] { return std::exchange(hasPromptedForApproval_, true); });
    if (alreadyPrompted) {
        logger().debug("Skipping duplicate System Settings approval prompt for helper.");
        return;
    }
    dependencies_.mainExecutor->post([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->serviceManager().openApprovalPage();
        self->dependencies_.notificationCenter->post(kApprovalNotification);
    });
}

}  // namespace vantorix
