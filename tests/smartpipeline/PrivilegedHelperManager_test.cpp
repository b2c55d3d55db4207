#include <gtest/gtest.h>

#include <thread>

#include "log/Log.h"
#include "smart/PrivilegedHelperManager.h"
#include "support/ManualMainExecutor.h"
#include "support/SubstituteHelperService.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::SubstituteHelperService;
using Script = SubstituteHelperService::Script;
using State = HelperServiceState;

class PrivilegedHelperManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<PrivilegedHelperManager> manager(Script script) {
        service_ = std::make_shared<SubstituteHelperService>(std::move(script));
        PrivilegedHelperManager::Dependencies dependencies;
        dependencies.helperService = service_;
        dependencies.mainExecutor = main_;
        dependencies.notificationCenter = &notifications_;
        dependencies.effectiveUserId = [] { return 1000U; };
        return PrivilegedHelperManager::create(std::move(dependencies));
    }
    std::vector<std::string> lines() const { return capture_.messages("PrivilegedHelperManager"); }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    NotificationCenter notifications_;
    int approvals_ = 0;
    Subscription approvalObserver_ = notifications_.addObserver(
        std::string(PrivilegedHelperManager::kApprovalNotification), [this] { ++approvals_; });
    std::shared_ptr<SubstituteHelperService> service_;
    log::Capture capture_;
};

// Each case: the helper service's state, the outcome of two calls, and what the calls cost.
TEST_F(PrivilegedHelperManagerTest, EnablesRepairsAndRemembersTheOutcome) {
    const HelperServiceError approval{HelperServiceFailure::needsAdministrator,
                                      "the administrator password was not given",
                                      "Error executing command as another user: Request dismissed"};
    const HelperServiceError broken{HelperServiceFailure::commandFailed, "systemctl failed", ""};
    struct Case {
        std::string name;
        std::function<void(Script&)> change;  // of a helper service that is not enabled
        bool installed;
        int enables, disables, approvals;
    };
    const auto stale = [](Script& s) {
        s.state = State::enabled;
        s.helperExecutable.exists = false;
    };
    const std::vector<Case> cases = {
        {"enabled", [](Script& s) { s.state = State::enabled; }, true, 0, 0, 0},
        {"stale", stale, true, 1, 1, 0},
        {"stale, disabling fails while enabled",
         [&](Script& s) {
             stale(s);
             s.disableError = broken;
         },
         false, 0, 1, 0},
        {"not enabled", [](Script&) {}, true, 1, 0, 0},
        {"the administrator refused", [&](Script& s) { s.enableError = approval; }, false, 1, 0, 1},
        {"failing", [&](Script& s) { s.enableError = broken; }, false, 1, 0, 0},
        {"needs an administrator: one notification",
         [&](Script& s) {
             s.state = State::needsAdministrator;
             s.enableError = approval;
         },
         false, 1, 0, 1},
        {"needs an administrator after enabling", [](Script& s) { s.stateAfterEnabling = State::needsAdministrator; },
         true, 1, 0, 1},
        {"unit file missing", [](Script& s) { s.definitionPath.reset(); }, false, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        capture_.clear();
        approvals_ = 0;
        Script script;
        c.change(script);
        auto helper = manager(script);
        EXPECT_EQ(helper->ensureHelperInstalledIfNeeded(), c.installed);
        const int stateReads = service_->calls().stateReads;
        EXPECT_EQ(helper->ensureHelperInstalledIfNeeded(), c.installed);  // answered from memory
        main_->drain();                                                   // runs the posted approval notifications
        const auto calls = service_->calls();
        EXPECT_EQ(calls.stateReads, stateReads);
        EXPECT_EQ(calls.enables, c.enables);
        EXPECT_EQ(calls.disables, c.disables);
        EXPECT_EQ(approvals_, c.approvals);
        const auto all = lines();
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
}

}  // namespace
}  // namespace vantorix
