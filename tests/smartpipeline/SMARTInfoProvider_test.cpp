#include <gtest/gtest.h>

#include <atomic>

#include "platform/linux/SysfsBlockDevices.h"
#include "smart/SMARTInfoProvider.h"
#include "support/ManualMainExecutor.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedBlockDevices.h"
#include "support/SubstituteHelperService.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;

TEST(SMARTInfoProviderCandidates, FollowPartitionsStacksAndNvmeControllers) {
    struct Case {
        std::string machine;
        std::string deviceName;
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

// sdz1, a partition of sdz: the two names the provider tries.
std::shared_ptr<BlockDevices> partitionOfSdz() {
    auto devices = std::make_shared<testing::ScriptedBlockDevices>();
    BlockDevice partition;
    partition.name = "sdz1";
    partition.wholeDisk = "sdz";
    devices->add(partition);
    return devices;
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

class SMARTInfoProviderTest : public ::testing::Test {
protected:
    SMARTInfoProvider provider(RuntimeEnvironment environment = {}) {
        Script script;
        script.state = HelperServiceState::enabled;
        service_ = std::make_shared<testing::SubstituteHelperService>(script);
        PrivilegedHelperManager::Dependencies dependencies;
        dependencies.helperService = service_;
        dependencies.mainExecutor = main_;  // the manager runs inline: the test thread is its main thread
        dependencies.runtimeEnvironment = std::move(environment);
        dependencies.notificationCenter = &notifications_;
        auto manager = PrivilegedHelperManager::create(std::move(dependencies));
        return SMARTInfoProvider(SmartctlHelperClient::create({helper_, manager, 100ms}), partitionOfSdz());
    }

    using Script = testing::SubstituteHelperService::Script;
    testing::ScopedLanguage english_{"en_US.UTF-8"};
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    NotificationCenter notifications_;
    std::shared_ptr<testing::SubstituteHelperService> service_;
    std::shared_ptr<ScriptedHelper> helper_ = std::make_shared<ScriptedHelper>();
};

TEST_F(SMARTInfoProviderTest, DisallowedPolicyTouchesNeitherHelperNorManager) {
    auto fetcher = provider(RuntimeEnvironment{false, {"Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS"}});
    helper_->answer = [](const std::string&) { return Answer(); };
    const auto outcome = fetcher.fetch("sdz1");
    EXPECT_FALSE(outcome.info);
    EXPECT_EQ(outcome.helperFailure, HelperRequestFailure::privilegedOperationsDisabled);
    EXPECT_EQ(helper_->connections, 0);
    EXPECT_EQ(service_->calls().stateReads, 0);
}

// Each case: how the helper answers the two candidates, and what the fetch makes of it.
TEST_F(SMARTInfoProviderTest, TriesTheCandidatesUntilOneAnswerIsUsable) {
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
        bool data;
        bool asleep;
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

}  // namespace
}  // namespace vantorix
