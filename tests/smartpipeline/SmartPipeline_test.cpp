#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "log/Log.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "smart/PrivilegedHelperManager.h"
#include "smart/SMARTInfoProvider.h"
#include "support/ManualMainExecutor.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedBlockDevices.h"
#include "support/SubstituteHelperService.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::SubstituteHelperService;
using Script = SubstituteHelperService::Script;
using State = HelperServiceState;

TEST(SMARTInfoProviderCandidates, FollowPartitionsStacksAndNvmeControllers) {
    struct Case {
        std::string machine, deviceName;
        std::vector<std::string> candidates;
    };
    const std::vector<Case> cases = {
        {"nvme-laptop", "nvme0n1p2", {"nvme0n1p2", "nvme0n1", "nvme0"}},
        {"nvme-laptop", " /dev/nvme0n1\n", {"nvme0n1", "nvme0"}},
        {"dmcrypt-nvme", "dm-0", {"dm-0", "nvme0n1", "nvme0"}},
        {"sata-disk", "sda1", {"sda1", "sda"}},
        {"virtio-disk", "vda", {"vda"}},
    };
    for (const auto& c : cases) {
        SysfsBlockDevices devices(std::string(VANTORIX_TEST_DATA_DIR) + "/sysfs/" + c.machine);
        EXPECT_EQ(SMARTInfoProvider::candidateNames(c.deviceName, devices), c.candidates)
            << c.machine << " " << c.deviceName;
    }
}

// An in-process helper: answers each request as the test script says (nothing: silence), on the
// calling thread.
using Answer = std::optional<HelperConnection::FetchAnswer>;
class ScriptedHelper final : public HelperConnector {
public:
    std::function<Answer(const std::string& deviceName)> answer;
    std::atomic<int> connections{0};

    std::shared_ptr<HelperConnection> connect() override {
        ++connections;
        return std::make_shared<Connection>(*this);
    }

private:
    class Connection final : public HelperConnection {
    public:
        explicit Connection(ScriptedHelper& helper) : helper_(helper) {}
        void setInvalidationHandler(std::function<void()>) override {}
        void setInterruptionHandler(std::function<void()>) override {}
        void invalidate() override {}
        void fetchSmartData(const std::string& deviceName, std::function<void(FetchAnswer)> reply) override {
            if (auto answer = helper_.answer(deviceName)) reply(std::move(*answer));
        }
        void helperVersion(std::function<void(VersionAnswer)> reply) override { reply(std::string("test")); }

    private:
        ScriptedHelper& helper_;
    };
};

// The helper manager over a substitute helper service, for user 1000, with the test thread as its
// main thread; and the SMART fetch over it, from a scripted helper, for sdz1, a partition of sdz.
class HelperPipelineTest : public ::testing::Test {
protected:
    std::shared_ptr<PrivilegedHelperManager> manager(Script script, RuntimeEnvironment environment = {}) {
        service_ = std::make_shared<SubstituteHelperService>(std::move(script));
        return PrivilegedHelperManager::create({.helperService = service_,
                                                .mainExecutor = main_,
                                                .runtimeEnvironment = std::move(environment),
                                                .notificationCenter = &notifications_,
                                                .effectiveUserId = [] { return 1000U; }});
    }
    SMARTInfoProvider provider(RuntimeEnvironment environment = {}) {
        auto devices = std::make_shared<testing::ScriptedBlockDevices>();
        BlockDevice partition;
        partition.name = "sdz1";
        partition.wholeDisk = "sdz";
        devices->add(partition);
        const auto enabled = manager(Script{.state = State::enabled}, std::move(environment));
        return SMARTInfoProvider(SmartctlHelperClient::create({helper_, enabled, 100ms}), devices);
    }
    std::vector<std::string> lines() const { return capture_.messages("PrivilegedHelperManager"); }

    testing::ScopedLanguage english_{"en_US.UTF-8"};
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    NotificationCenter notifications_;
    int approvals_ = 0;
    Subscription approvalObserver_ = notifications_.addObserver(
        std::string(PrivilegedHelperManager::kApprovalNotification), [this] { ++approvals_; });
    std::shared_ptr<SubstituteHelperService> service_;
    std::shared_ptr<ScriptedHelper> helper_ = std::make_shared<ScriptedHelper>();
    log::Capture capture_;
};

TEST_F(HelperPipelineTest, DisallowedPolicyTouchesNeitherHelperNorManager) {
    auto fetcher = provider(RuntimeEnvironment{false, {"Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS"}});
    helper_->answer = [](const std::string&) { return Answer(); };
    const auto outcome = fetcher.fetch("sdz1");
    EXPECT_FALSE(outcome.info);
    EXPECT_EQ(outcome.helperFailure, HelperRequestFailure::privilegedOperationsDisabled);
    EXPECT_EQ(helper_->connections, 0);
    EXPECT_EQ(service_->calls().stateReads, 0);
}

// Each case: how the helper answers the two candidates, and what the fetch makes of it.
TEST_F(HelperPipelineTest, TriesTheCandidatesUntilOneAnswerIsUsable) {
    const std::string passed = R"({"smart_status": {"passed": true}})";
    const SmartctlExecutionResult usableResult{passed, "smartctl --json -a -n standby /dev/sdz", "", 4};
    const Answer usable = usableResult;
    const Answer empty = SmartctlExecutionResult{"", "smartctl", "", 1};
    const Answer asleep = SmartctlExecutionResult{
        R"json({"smartctl":{"messages":[{"string":"Device is in STANDBY mode, exit(2)"}]}})json", "smartctl", "", 2};
    const Answer failedOpen = SmartctlExecutionResult{R"({"smartctl":{"exit_status":2}})", "smartctl", "", 2};
    const Answer helperError = protocol::helperError(protocol::HelperFailure::deviceNotFound, "no such device");
    const Answer connectionError = ConnectionError{ConnectionFailure::brokenStream, "closed"};
    const Answer silence;
    using F = HelperRequestFailure;
    struct Case {
        std::string name;
        Answer partition, disk;
        bool data, asleep;
        int connections;  // made over the whole fetch: a dropped connection is made afresh
        std::optional<F> helperFailure;
    };
    const std::vector<Case> cases = {
        {"first usable, despite exit status 4", usable, silence, true, false, 1, {}},
        {"helper error, then usable: connection kept", helperError, usable, true, false, 1, {}},
        {"empty output, then usable", empty, usable, true, false, 1, {}},
        {"a silent helper: dropped after each time-out", silence, silence, false, false, 2, F::timedOut},
        {"helper errors only", helperError, helperError, false, false, 1, F::helperError},
        {"the helper answered one name: the drive gave nothing", empty, connectionError, false, false, 1, {}},
        {"a sleeping drive ends the fetch", asleep, usable, false, true, 1, {}},
        {"open failure without the standby message is no sleep", failedOpen, usable, true, false, 1, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        helper_ = std::make_shared<ScriptedHelper>();
        helper_->answer = [&c](const std::string& name) { return name == "sdz1" ? c.partition : c.disk; };
        auto fetcher = provider();
        const auto outcome = fetcher.fetch("sdz1");
        EXPECT_EQ(outcome.info.has_value(), c.data);
        EXPECT_EQ(outcome.driveAsleep, c.asleep);
        EXPECT_EQ(outcome.helperFailure, c.helperFailure);
        EXPECT_EQ(helper_->connections, c.connections);
        if (c.data) {
            EXPECT_EQ(outcome.info->overallStatus, "PASSED");
            EXPECT_EQ(outcome.info->sourceCommand, usableResult.commandDescription);
        }
    }
}

// Each case: the helper service's state, the outcome of two calls, and what the calls cost.
TEST_F(HelperPipelineTest, EnablesRepairsAndRemembersTheOutcome) {
    const HelperServiceError approval{HelperServiceFailure::needsAdministrator,
                                      "the administrator password was not given",
                                      "Error executing command as another user: Request dismissed"};
    const HelperServiceError broken{HelperServiceFailure::commandFailed, "systemctl failed", ""};
    struct Case {
        std::string name;
        Script script;
        bool installed;
        int enables, disables, approvals;
    };
    // A stale registration: enabled, its program gone; and one whose disabling fails too.
    const Script stale{.helperExecutable = {"/usr/libexec/vantorix/vantorix-smartctl-helper", false},
                       .state = State::enabled};
    Script stuck = stale;
    stuck.disableError = broken;
    const std::vector<Case> cases = {
        {"enabled", {.state = State::enabled}, true, 0, 0, 0},
        {"stale", stale, true, 1, 1, 0},
        {"stale; disabling fails", stuck, false, 0, 1, 0},
        {"not enabled", {}, true, 1, 0, 0},
        {"the administrator refused", {.enableError = approval}, false, 1, 0, 1},
        {"failing", {.enableError = broken}, false, 1, 0, 0},
        {"needs an administrator", {.state = State::needsAdministrator, .enableError = approval}, false, 1, 0, 1},
        {"needs an administrator after enabling", {.stateAfterEnabling = State::needsAdministrator}, true, 1, 0, 1},
        {"unit file missing", {.definitionPath = std::nullopt}, false, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        capture_.clear();
        approvals_ = 0;
        auto helper = manager(c.script);
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

TEST_F(HelperPipelineTest, CallsFromOtherThreadsRunTheWorkflowOnTheMainThread) {
    auto helper = manager(Script{.state = State::enabled});
    std::optional<bool> answer;
    std::thread caller([&] { answer = helper->ensureHelperInstalledIfNeeded(); });
    ASSERT_TRUE(main_->runUntil([&] { return service_->calls().stateReads > 0; }, 10s));
    caller.join();
    EXPECT_EQ(answer, true);
}

}  // namespace
}  // namespace vantorix
