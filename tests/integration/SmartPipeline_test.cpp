#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <nlohmann/json.hpp>

#include "composition/SmartPipeline.h"
#include "integration/HelperTestClient.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "support/HelperSocketStandIn.h"
#include "support/ManualMainExecutor.h"
#include "support/Process.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using testing::HelperSocketStandIn;

class SmartPipelineIntegration : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the helper and its peer check need root";
    }
    // The SMART fetch as the programs put it together, pointed at a helper listening at `socketPath`.
    SmartPipeline pipelineAt(const std::string& socketPath) {
        return SmartPipeline::over(std::make_shared<ExternalHelperService>(socketPath), main_);
    }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
};

// The helper hands back what smartctl, run here the same way, says; this machine's virtual disk has
// no SMART, and that is the drive's lack, not a failure of the helper.
TEST_F(SmartPipelineIntegration, RealSmartctlAnswersThroughTheHelperAsItDoesRunDirectly) {
    const std::string smartctl = "/usr/sbin/smartctl";
    if (::access(smartctl.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << smartctl;
    const auto daemon = testing::startHelper(smartctl);
    ASSERT_NE(daemon, nullptr);
    const std::string disk = testing::rootDiskName();
    const std::string device = "/dev/" + disk;
    const auto reply = testing::HelperClient(daemon->socketPath()).ask(testing::fetchFrame(disk));
    const auto* run = testing::result(reply);
    ASSERT_NE(run, nullptr);
    const auto direct = testing::runProcess({smartctl, "--json", "-a", "-n", "standby", device});
    EXPECT_EQ(run->commandDescription, smartctl + " --json -a -n standby " + device);
    EXPECT_EQ(run->terminationStatus, direct.exitStatus);
    EXPECT_EQ(run->standardError, direct.err);
    const auto document = nlohmann::json::parse(run->jsonData);
    EXPECT_EQ(document["smartctl"]["argv"].back(), device);
    EXPECT_EQ(document["smartctl"]["exit_status"], run->terminationStatus);

    const auto outcome = pipelineAt(daemon->socketPath()).provider->fetch(disk);
    EXPECT_FALSE(outcome.info.has_value());
    EXPECT_FALSE(outcome.helperFailure.has_value());
}

// What the helper's side does decides how a request ends: a helper that never answers costs the
// time-out, one that closes the connection fails the request as soon as it does. Either way the
// connection is dropped and each request makes a fresh one.
TEST_F(SmartPipelineIntegration, EachRequestEndsAsTheHelpersSideDecides) {
    const std::pair<HelperSocketStandIn::Behaviour, HelperRequestFailure> cases[] = {
        {HelperSocketStandIn::Behaviour::neverAnswer, HelperRequestFailure::timedOut},
        {HelperSocketStandIn::Behaviour::closeAtOnce, HelperRequestFailure::brokenStream}};
    for (const auto& [behaviour, failure] : cases) {
        SCOPED_TRACE(static_cast<int>(behaviour));
        HelperSocketStandIn helper(behaviour, 0);
        const auto pipeline = pipelineAt(helper.path());
        for (int round = 1; round <= 2; ++round) {
            const auto run = pipeline.client->fetchSmartData("sda");
            ASSERT_FALSE(run.ok());
            EXPECT_EQ(run.error(), failure);
        }
        // One look by the helper manager (does a root helper listen?), then one connection per
        // request, each sent its request.
        const auto counts = helper.waitFor([](const auto& seen) { return seen.connections >= 3; }, 10s);
        EXPECT_EQ(counts.connections, 3U);
        if (behaviour == HelperSocketStandIn::Behaviour::neverAnswer) {
            EXPECT_GT(helper.waitFor([](const auto& seen) { return seen.bytes > 0; }, 10s).bytes, 0U);
        }
    }
}

TEST_F(SmartPipelineIntegration, NothingIsSentToAListenerThatIsNotRoot) {
    HelperSocketStandIn impostor(HelperSocketStandIn::Behaviour::neverAnswer, 65534);
    auto connection = UnixSocketHelperConnection::create(impostor.path());
    std::promise<HelperConnection::FetchAnswer> answered;
    std::atomic<bool> invalidated{false};
    connection->setInvalidationHandler([&] { invalidated = true; });
    connection->fetchSmartData("sda", [&](HelperConnection::FetchAnswer answer) { answered.set_value(std::move(answer)); });
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
    const auto answer = future.get();
    const auto* failure = std::get_if<ConnectionError>(&answer);
    ASSERT_NE(failure, nullptr);
    EXPECT_EQ(failure->failure, ConnectionFailure::peerNotRoot);
    EXPECT_THAT(failure->description, HasSubstr("runs as user 65534, not as user 0; nothing was sent to it"));
    EXPECT_TRUE(invalidated);  // set before the answer, on the connection's thread
    // Once the client has hung up, whatever it sent has arrived.
    const auto counts = impostor.waitFor([](const auto& seen) { return seen.closed >= 1; }, 10s);
    EXPECT_EQ(counts, (HelperSocketStandIn::Counts{1, 0, 1}));
    EXPECT_FALSE(helperListensAt(impostor.path()));
}

}  // namespace
}  // namespace vantorix
