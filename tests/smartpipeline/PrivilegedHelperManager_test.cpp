#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "concurrency/ManualMainExecutor.h"
#include "log/Log.h"
#include "platform/SubstituteServiceManager.h"
#include "smart/PrivilegedHelperManager.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Not;
using Script = SubstituteServiceManager::Script;

constexpr int kNotRegistered = static_cast<int>(ServiceStatus::notRegistered);
constexpr int kEnabled = static_cast<int>(ServiceStatus::enabled);
constexpr int kRequiresApproval = static_cast<int>(ServiceStatus::requiresApproval);

TEST(RuntimeEnvironment, AppendsAReasonPerRuleInOrder) {
    struct Case {
        std::map<std::string, std::string> environment;
        bool sandboxed;
        std::vector<std::string> reasons;
    };
    const std::vector<Case> cases = {
        {{}, false, {}},
        {{{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "1"}, {"SIMULATOR_DEVICE_NAME", "x"}}, false,
         {"Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "Simulator environment"}},
        {{{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "true"}, {"XCODE_RUNNING_FOR_PREVIEWS", "0"},
          {"XCODE_RUNNING_FOR_TESTS", " 1"}}, false, {}},
        {{{"XCTestConfigurationFilePath", ""}}, false, {"XCTest session detected"}},
        {{{"XCODE_RUNNING_FOR_PREVIEWS", "1"}, {"XCODE_RUNNING_FOR_TESTS", "1"}}, false,
         {"SwiftUI Preview runtime", "Xcode test harness"}},
        {{{"APP_SANDBOX_CONTAINER_ID", "c"}}, true, {"App Sandbox entitlement active"}},
        {{}, true, {"App Sandbox entitlement active"}},
    };
    for (const auto& c : cases) {
        const auto environment = RuntimeEnvironment::evaluate(
            [&c](std::string_view name) -> std::optional<std::string> {
                const auto found = c.environment.find(std::string(name));
                if (found == c.environment.end()) return std::nullopt;
                return found->second;
            },
            c.sandboxed);
        EXPECT_EQ(environment.restrictionReasons, c.reasons);
        EXPECT_EQ(environment.allowsPrivilegedOperations, c.reasons.empty());
    }
}

class PrivilegedHelperManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<PrivilegedHelperManager> manager(Script script, RuntimeEnvironment environment = {}) {
        services_ = std::make_shared<SubstituteServiceManager>(std::move(script));
        PrivilegedHelperManager::Dependencies dependencies;
        dependencies.serviceManager = services_;
        dependencies.mainExecutor = main_;
        dependencies.runtimeEnvironment = std::move(environment);
        dependencies.notificationCenter = &notifications_;
        dependencies.effectiveUserId = [] { return 1000U; };
        return PrivilegedHelperManager::create(std::move(dependencies));
    }
    // Runs the posted approval prompts.
    void settle() { main_->drain(); }
    std::vector<std::string> lines() const { return capture_.messages("PrivilegedHelperManager"); }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    NotificationCenter notifications_;
    int approvals_ = 0;
    Subscription approvalObserver_ = notifications_.addObserver(
        std::string(PrivilegedHelperManager::kApprovalNotification), [this] { ++approvals_; });
    std::shared_ptr<SubstituteServiceManager> services_;
    log::Capture capture_;
};

TEST_F(PrivilegedHelperManagerTest, PolicyRefusalNeverTouchesTheServiceManager) {
    RuntimeEnvironment disabled{false, {"Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "Simulator environment"}};
    auto helper = manager(Script{}, disabled);
    EXPECT_FALSE(helper->ensureHelperInstalledIfNeeded());
    EXPECT_EQ(helper->cachedInstallationState(), false);
    const auto calls = services_->calls();
    EXPECT_EQ(calls.definitionLookups + calls.serviceObjects + calls.statusReads + calls.registrations, 0);
    EXPECT_THAT(lines(), Contains("Skipped helper installation because privileged operations are disabled (Manual "
                                  "override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS, Simulator environment)."));
}

// Each case: the service manager's state, the outcome of two calls, and what the calls cost.
TEST_F(PrivilegedHelperManagerTest, RegistersRepairsAndRemembersTheOutcome) {
    const ServiceError approval{"SMAppServiceErrorDomain", 1, "needs approval", "pkexec: dismissed"};
    const ServiceError broken{"com.vantorix.ServiceManager.systemd", 5, "systemctl failed", ""};
    struct Case {
        std::string name;
        Script script;
        bool installed;
        int registrations;
        int unregistrations;
        int approvals;
        std::vector<std::string> expectedLines;
    };
    Script enabled;
    enabled.status = kEnabled;
    Script stale = enabled;
    stale.helperExecutable.exists = false;
    Script staleUnremovable = stale;
    staleUnremovable.unregisterError = broken;
    // Unregistering reports a failure, yet a fresh look finds the helper gone (or in a state the
    // manager does not know, which counts as gone).
    Script staleGone = staleUnremovable;
    staleGone.statusAfterFailedUnregister = kNotRegistered;
    Script staleOdd = staleUnremovable;
    staleOdd.statusAfterFailedUnregister = 9;
    Script unregistered;
    Script blocked;
    blocked.registerError = approval;
    Script failing;
    failing.registerError = broken;
    Script pending;
    pending.status = kRequiresApproval;
    pending.registerError = approval;
    Script approvedLater;
    approvedLater.statusAfterRegistering = kRequiresApproval;
    Script missing;
    missing.definitionPath.reset();
    Script odd;
    odd.status = 7;
    const std::vector<Case> cases = {
        {"enabled", enabled, true, 0, 0, 0,
         {"Privileged helper already registered with launchd; caching installation flag.",
          "Using cached helper installation state: true"}},
        {"stale", stale, true, 1, 1, 0,
         {"Helper marked enabled but binary missing under /Library/PrivilegedHelperTools; will trigger reinstall.",
          "Successfully removed stale launchd registration; proceeding with fresh helper registration.",
          "Successfully installed privileged helper via SMAppService."}},
        {"stale, unregister fails while registered", staleUnremovable, false, 0, 1, 0,
         {"Helper status observed after unregister failure: enabled",
          "Failed to unregister stale helper before reinstall: systemctl failed",
          "Failed to install privileged helper1: SMAppService registration failed: systemctl failed"}},
        {"stale, unregister fails but the helper is gone", staleGone, true, 1, 1, 0,
         {"Helper status observed after unregister failure: notRegistered",
          "SMAppService.unregister() reported a failure but helper is already absent; continuing with reinstall.",
          "Refreshed SMAppService after unregister; new status: notRegistered"}},
        {"stale, unregister fails, unknown state", staleOdd, true, 1, 1, 0,
         {"Encountered unknown SMAppService.Status when checking uninstall state; defaulting to not installed."}},
        {"not registered", unregistered, true, 1, 0, 0,
         {"Helper service not registered with launchd yet.", "will register", "did register",
          "Clearing in-flight installation flag. Cached helper state = true"}},
        {"blocked", blocked, false, 1, 0, 1,
         {"Helper registration blocked by Login Items approval (SMAppServiceErrorDomain code=1). Prompting user to "
          "approve in System Settings.",
          "SMAppService.register() threw NSError with domain: SMAppServiceErrorDomain, code: 1, userInfo: pkexec: dismissed",
          "Using cached helper installation state: false"}},
        {"failing", failing, false, 1, 0, 0,
         {"Failed to install privileged helper2: systemctl failed",
          "Clearing in-flight installation flag. Cached helper state = false"}},
        {"awaiting approval", pending, false, 1, 0, 1,
         {"Privileged helper awaiting user approval inside System Settings → General → Login Items.",
          "Skipping duplicate System Settings approval prompt for helper."}},
        {"approval after registering", approvedLater, true, 1, 0, 1,
         {"Privileged helper requires additional approval inside System Settings → General → Login Items."}},
        {"definition missing", missing, false, 0, 0, 0,
         {"Unable to locate helper launchd plist under Contents/Library/LaunchDaemons.",
          "Failed to install privileged helper1: Missing helper LaunchDaemon plist inside application resources"}},
        {"unknown status", odd, true, 1, 0, 0,
         {"Encountered uncommon helper status (7).",
          "Unhandled SMAppService status encountered (7); assuming helper not installed."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        capture_.clear();
        approvals_ = 0;
        auto helper = manager(c.script);
        EXPECT_EQ(helper->ensureHelperInstalledIfNeeded(), c.installed);
        const int statusReads = services_->calls().statusReads;
        EXPECT_EQ(helper->ensureHelperInstalledIfNeeded(), c.installed);  // answered from memory
        settle();
        const auto calls = services_->calls();
        EXPECT_EQ(calls.statusReads, statusReads);
        EXPECT_EQ(calls.registrations, c.registrations);
        EXPECT_EQ(calls.unregistrations, c.unregistrations);
        EXPECT_EQ(calls.approvalPages, c.approvals);
        EXPECT_EQ(approvals_, c.approvals);
        for (const auto& line : c.expectedLines) EXPECT_THAT(lines(), Contains(line));
    }
}

TEST_F(PrivilegedHelperManagerTest, CallsFromOtherThreadsRunTheWorkflowOnTheMainThread) {
    Script script;
    script.status = kEnabled;
    auto helper = manager(script);
    std::optional<bool> answer;
    std::thread caller([&] { answer = helper->ensureHelperInstalledIfNeeded(); });
    ASSERT_TRUE(main_->runUntil([&] { return services_->calls().statusReads > 0; }, 10s));
    caller.join();
    EXPECT_EQ(answer, true);
    EXPECT_THAT(lines(), Contains("Dispatching helper installation onto the main thread synchronously."));
    EXPECT_THAT(lines(), Not(Contains("Executing helper installation directly on the main thread.")));
}

}  // namespace
}  // namespace vantorix
