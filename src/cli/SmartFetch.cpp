#include "cli/SmartFetch.h"

#include "concurrency/NotificationCenter.h"
#include "concurrency/Task.h"
#include "smart/HelperApprovalTexts.h"

namespace vantorix::cli {

SMARTInfoProvider::Outcome fetchSmartInfo(const SmartPipeline& pipeline, LoopMainExecutor& main,
                                          const std::string& deviceName, CancellationSource& cancellation) {
    SMARTInfoProvider::Outcome outcome;
    Task task("com.vantorix.cli.smartFetch", QualityOfService::userInitiated, [&](const CancellationToken& token) {
        // The task's own token is cancelled only when the handle goes; the caller's source
        // is the one the user's Ctrl-C cancels.
        (void)token;
        outcome = pipeline.provider->fetch(deviceName, cancellation.token());
        main.stop();
    });
    try {
        main.run();
    } catch (...) {
        // The task writes into this frame: it ends before the failure leaves it.
        cancellation.cancel();
        task.join();
        throw;
    }
    task.join();
    return outcome;
}

ApprovalListener::ApprovalListener()
    : subscription_(
          NotificationCenter::defaultCenter().addObserver(std::string(PrivilegedHelperManager::kApprovalNotification),
                                                          [requested = requested_] { *requested = true; })) {}

std::optional<std::string> helperUnavailableReason(const SmartPipeline& pipeline, const ApprovalListener& approval) {
    const auto& environment = pipeline.manager->runtimeEnvironment();
    if (!environment.allowsPrivilegedOperations) {
        return smart::privilegedOperationsDisabledMessage(environment.reasonsText());
    }
    if (pipeline.manager->cachedInstallationState().value_or(true)) return std::nullopt;
    auto& service = *pipeline.helperService;
    if (approval.requested()) return smart::helperApprovalLine(service.backend(), service.socketPath());
    if (!service.definitionPath())
        return smart::helperNotInstalledMessage(service.backend(), service.helperExecutable().path);
    return smart::helperFailedMessage();
}

}  // namespace vantorix::cli
