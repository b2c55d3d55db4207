#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "log/Log.h"
#include "smart/PrivilegedHelperManager.h"
#include "support/ManualMainExecutor.h"
#include "support/SubstituteHelperService.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Not;
using testing::SubstituteHelperService;
using Script = SubstituteHelperService::Script;
using State = HelperServiceState;

TEST(RuntimeEnvironment, AppendsAReasonPerRuleInOrder) {
    struct Case {
        std::map<std::string, std::string> environment;
        bool flatpakInfo;
        std::vector<std::string> reasons;
    };
    const std::vector<Case> cases = {
        {{}, false, {}},
        {{{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "1"}, {"SNAP", "/snap/vantorix/1"}}, false,
         {"Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "running in a Snap sandbox"}},
        // Only an exact "1" counts.
        {{{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "true"}}, false, {}},
        {{{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", " 1"}, {"FLATPAK_ID", "com.vantorix.Vantorix"}}, false,
         {"running in a Flatpak sandbox"}},
        {{}, true, {"running in a Flatpak sandbox"}},
    };
    for (const auto& c : cases) {
        const auto environment = RuntimeEnvironment::evaluate(
            [&c](std::string_view name) -> std::optional<std::string> {
                const auto found = c.environment.find(std::string(name));
                if (found == c.environment.end()) return std::nullopt;
                return found->second;
            },
            c.flatpakInfo);
        EXPECT_EQ(environment.restrictionReasons, c.reasons);
        EXPECT_EQ(environment.allowsPrivilegedOperations, c.reasons.empty());
    }
}

class PrivilegedHelperManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<PrivilegedHelperManager> manager(Script script, RuntimeEnvironment environment = {}) {
        service_ = std::make_shared<SubstituteHelperService>(std::move(script));
        PrivilegedHelperManager::Dependencies dependencies;
        dependencies.helperService = service_;
        dependencies.mainExecutor = main_;
        dependencies.runtimeEnvironment = std::move(environment);
        dependencies.notificationCenter = &notifications_;
        dependencies.effectiveUserId = [] { return 1000U; };
        return PrivilegedHelperManager::create(std::move(dependencies));
    }
    // Runs the posted approval notifications.
    void settle() { main_->drain(); }
    std::vector<std::string> lines() const { return capture_.messages("PrivilegedHelperManager"); }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    NotificationCenter notifications_;
    int approvals_ = 0;
    Subscription approvalObserver_ = notifications_.addObserver(
        std::string(PrivilegedHelperManager::kApprovalNotification), [this] { ++approvals_; });
    std::shared_ptr<SubstituteHelperService> service_;
    log::Capture capture_;
};

TEST_F(PrivilegedHelperManagerTest, PolicyRefusalNeverTouchesTheHelperService) {
    RuntimeEnvironment disabled{false, {"Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "running in a Snap sandbox"}};
    auto helper = manager(Script{}, disabled);
    EXPECT_FALSE(helper->ensureHelperInstalledIfNeeded());
    EXPECT_EQ(helper->cachedInstallationState(), false);
    const auto calls = service_->calls();
    EXPECT_EQ(calls.definitionLookups + calls.stateReads + calls.enables, 0);
    EXPECT_THAT(lines(), Contains("Skipped helper installation because privileged operations are disabled (Manual "
                                  "override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS, running in a Snap sandbox)."));
}

// Each case: the helper service's state, the outcome of two calls, and what the calls cost.
TEST_F(PrivilegedHelperManagerTest, EnablesRepairsAndRemembersTheOutcome) {
    const HelperServiceError approval{HelperServiceFailure::needsAdministrator, "the administrator password was not given",
                                      "Error executing command as another user: Request dismissed"};
    const HelperServiceError broken{HelperServiceFailure::commandFailed, "systemctl failed", ""};
    struct Case {
        std::string name;
        Script script;
        bool installed;
        int enables;
        int disables;
        int approvals;
        std::vector<std::string> expectedLines;
    };
    Script enabled;
    enabled.state = State::enabled;
    Script stale = enabled;
    stale.helperExecutable.exists = false;
    Script staleStuck = stale;
    staleStuck.disableError = broken;
    // Disabling reports a failure, yet a fresh look finds the helper gone.
    Script staleGone = staleStuck;
    staleGone.stateAfterFailedDisable = State::notEnabled;
    Script notEnabled;
    Script blocked;
    blocked.enableError = approval;
    Script failing;
    failing.enableError = broken;
    Script pending;
    pending.state = State::needsAdministrator;
    pending.enableError = approval;
    Script approvedLater;
    approvedLater.stateAfterEnabling = State::needsAdministrator;
    Script missing;
    missing.definitionPath.reset();
    Script unitGone;
    unitGone.state = State::unitNotInstalled;
    const std::vector<Case> cases = {
        {"enabled", enabled, true, 0, 0, 0,
         {"Helper state (substitute helper service): enabled",
          "Privileged helper already enabled (substitute helper service); caching installation flag.",
          "Using cached helper installation state: true"}},
        {"stale", stale, true, 1, 1, 0,
         {"Helper enabled but its program /usr/libexec/vantorix/vantorix-smartctl-helper is missing; will trigger reinstall.",
          "Successfully disabled the stale helper registration; proceeding with a fresh one.",
          "Successfully installed privileged helper via substitute helper service."}},
        {"stale, disabling fails while enabled", staleStuck, false, 0, 1, 0,
         {"Helper state observed after the failed disable: enabled",
          "Failed to disable the stale helper registration before reinstalling: systemctl failed",
          "Failed to install privileged helper: Registration failed: systemctl failed"}},
        {"stale, disabling fails but the helper is gone", staleGone, true, 1, 1, 0,
         {"Disabling reported a failure but the helper is already gone; continuing with reinstall.",
          "Refreshed helper state after disabling: not enabled"}},
        {"not enabled", notEnabled, true, 1, 0, 0,
         {"Helper not enabled yet.", "Starting privileged helper installation via substitute helper service.",
          "Clearing in-flight installation flag. Cached helper state = true"}},
        {"the administrator refused", blocked, false, 1, 0, 1,
         {"Enabling the helper needs an administrator; posting the approval notification.",
          "Enabling the helper failed (needs an administrator): the administrator password was not given; output: Error "
          "executing command as another user: Request dismissed",
          "Using cached helper installation state: false"}},
        {"failing", failing, false, 1, 0, 0,
         {"Enabling the helper failed (command failed): systemctl failed",
          "Clearing in-flight installation flag. Cached helper state = false"}},
        {"needs an administrator", pending, false, 1, 0, 1,
         {"Helper needs an administrator to enable it; awaiting approval.",
          "Skipping duplicate approval notification for the helper."}},
        {"needs an administrator after enabling", approvedLater, true, 1, 0, 1,
         {"Privileged helper still needs an administrator to enable it."}},
        {"unit file missing", missing, false, 0, 0, 0,
         {"Unable to locate the substitute unit file (substitute helper service).",
          "Failed to install privileged helper: Helper not installed: the substitute unit file is missing"}},
        {"unit not installed", unitGone, true, 1, 0, 0,
         {"Helper unit not installed (substitute helper service): the substitute unit file is missing; check the "
          "installation."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        capture_.clear();
        approvals_ = 0;
        auto helper = manager(c.script);
        EXPECT_EQ(helper->ensureHelperInstalledIfNeeded(), c.installed);
        const int stateReads = service_->calls().stateReads;
        EXPECT_EQ(helper->ensureHelperInstalledIfNeeded(), c.installed);  // answered from memory
        settle();
        const auto calls = service_->calls();
        EXPECT_EQ(calls.stateReads, stateReads);
        EXPECT_EQ(calls.enables, c.enables);
        EXPECT_EQ(calls.disables, c.disables);
        EXPECT_EQ(approvals_, c.approvals);
        const auto all = lines();
        for (const auto& line : c.expectedLines) EXPECT_THAT(all, Contains(line));
        for (std::size_t i = 1; i < all.size(); ++i) EXPECT_NE(all[i], all[i - 1]) << "logged twice in a row";
    }
}

TEST_F(PrivilegedHelperManagerTest, CallsFromOtherThreadsRunTheWorkflowOnTheMainThread) {
    Script script;
    script.state = State::enabled;
    auto helper = manager(script);
    std::optional<bool> answer;
    std::thread caller([&] { answer = helper->ensureHelperInstalledIfNeeded(); });
    ASSERT_TRUE(main_->runUntil([&] { return service_->calls().stateReads > 0; }, 10s));
    caller.join();
    EXPECT_EQ(answer, true);
    EXPECT_THAT(lines(), Contains("Dispatching helper installation onto the main thread synchronously."));
    EXPECT_THAT(lines(), Not(Contains("Executing helper installation directly on the main thread.")));
}

}  // namespace
}  // namespace vantorix
