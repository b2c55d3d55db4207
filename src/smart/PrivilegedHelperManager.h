#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "concurrency/MainExecutor.h"
#include "concurrency/NotificationCenter.h"
#include "concurrency/SerialQueue.h"
#include "platform/HelperService.h"
#include "smart/PrivilegedHelperError.h"
#include "smart/RuntimeEnvironment.h"
#include "util/Result.h"

namespace vantorix {

// Makes sure the privileged SMART helper is enabled (under systemd: its socket unit) when the
// runtime policy allows it: inspects its state, repairs a stale registration (enabled, but the
// helper program is gone), enables it when needed, posts the approval notification (an
// administrator has to enable it) at most once per process, and remembers the outcome for the rest
// of the process, so later calls answer at once.
//
// Threads: inspection and registration run on the main thread; a call from another thread waits
// for the main thread meanwhile, so nothing may block the main thread while it waits for a thread
// that can call ensureHelperInstalledIfNeeded (a SMART fetch, for instance).
class PrivilegedHelperManager : public std::enable_shared_from_this<PrivilegedHelperManager> {
public:
    // Posted on the main thread when an administrator has to enable the helper.
    static constexpr std::string_view kApprovalNotification =
        "com.vantorix.notifications.privilegedHelperRequiresApproval";

    struct Dependencies {
        std::shared_ptr<HelperService> helperService;
        std::shared_ptr<MainExecutor> mainExecutor;
        RuntimeEnvironment runtimeEnvironment = RuntimeEnvironment::current();
        NotificationCenter* notificationCenter = &NotificationCenter::defaultCenter();
        std::function<unsigned()> effectiveUserId;  // the process's own when empty
    };

    static std::shared_ptr<PrivilegedHelperManager> create(Dependencies dependencies);
    ~PrivilegedHelperManager();
    PrivilegedHelperManager(const PrivilegedHelperManager&) = delete;
    PrivilegedHelperManager& operator=(const PrivilegedHelperManager&) = delete;

    const RuntimeEnvironment& runtimeEnvironment() const { return dependencies_.runtimeEnvironment; }
    HelperService& helperService() const { return *dependencies_.helperService; }

    // True when the helper is enabled (perhaps just now); false when it is not and could not be.
    // Callable from any thread.
    bool ensureHelperInstalledIfNeeded();

    // The remembered outcome: nothing until the first call has decided it.
    std::optional<bool> cachedInstallationState();

private:
    explicit PrivilegedHelperManager(Dependencies dependencies);

    bool runInstallationWorkflow();
    bool inspectRegistration();
    Result<Unit, PrivilegedHelperError> registerHelper();
    // Looks for the file the helper is enabled from.
    Result<Unit, PrivilegedHelperError> locateDefinition();
    void promptForApproval();
    void clearInstallingFlag();

    Dependencies dependencies_;
    SerialQueue stateQueue_;
    // Guarded by stateQueue_.
    std::optional<bool> cachedInstallationState_;
    bool isInstalling_ = false;
    bool hasPromptedForApproval_ = false;
};

}  // namespace vantorix
