#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>

#include "composition/SmartPipeline.h"
#include "integration/HelperTestClient.h"
#include "log/Log.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "support/HelperSocketStandIn.h"
#include "support/ManualMainExecutor.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;

// The SMART fetch as the programs put it together, pointed at a helper listening at `socketPath`.
SmartPipeline pipelineAt(const std::string& socketPath, const std::shared_ptr<MainExecutor>& main) {
    return SmartPipeline::over(std::make_shared<ExternalHelperService>(socketPath), main);
}

using testing::HelperSocketStandIn;

class SmartPipelineIntegration : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the helper and its peer check need root";
    }
    std::vector<std::string> lines(std::string_view category) const { return capture_.messages(category); }

    testing::ScopedLanguage english_{"en_US.UTF-8"};
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    log::Capture capture_;
};

TEST_F(SmartPipelineIntegration, RealSmartctlAnswerIsLoggedAndFoundUnusable) {
    std::string error;
    auto daemon = testing::HelperDaemon::start({"/usr/sbin/smartctl", {}}, &error);
    ASSERT_NE(daemon, nullptr) << error;
    const auto pipeline = pipelineAt(daemon->socketPath(), main_);
    const std::string disk = testing::rootDiskName();
    const auto run = pipeline.client->fetchSmartData(disk);  // the reply's fields: HelperRequests
    ASSERT_TRUE(run.ok());

    // This machine's virtual disk has no SMART: every candidate is tried, each answer logged, and
    // the lack of data is the drive's, not the helper's.
    const auto outcome = pipeline.provider->fetch(disk);
    EXPECT_FALSE(outcome.info.has_value());
    EXPECT_FALSE(outcome.helperFailure.has_value());
    const std::string command = run->commandDescription;
    EXPECT_THAT(lines("SmartmontoolsBridge"),
                Contains(fmt::format("smartctl exited with status {} for device {}; continuing to parse command: {}",
                                     run->terminationStatus, disk, command)));
    EXPECT_THAT(lines("SmartmontoolsBridge"),
                Contains("smartctl JSON for device " + disk + " did not contain usable SMART information"));
    EXPECT_THAT(lines("SMARTInfoProvider"),
                Contains("All smartctl attempts exhausted for device " + disk + "; SMART data unavailable"));
}

// What the helper's side does decides how a request ends: a helper that never answers costs the
// time-out, one that closes the connection fails the request as soon as it does. Either way the
// connection is dropped and each request makes a fresh one.
TEST_F(SmartPipelineIntegration, EachRequestEndsAsTheHelpersSideDecides) {
    struct Case {
        HelperSocketStandIn::Behaviour behaviour;
        HelperRequestFailure failure;
        std::string line;
    };
    const std::vector<Case> cases = {
        {HelperSocketStandIn::Behaviour::neverAnswer, HelperRequestFailure::timedOut,
         "Timed out waiting for helper response when fetching SMART info for device sda"},
        {HelperSocketStandIn::Behaviour::closeAtOnce, HelperRequestFailure::brokenStream,
         "Helper connection failed (broken stream) for device sda: the privileged helper closed the connection before "
         "answering"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        capture_.clear();
        HelperSocketStandIn helper(c.behaviour, 0);
        const auto pipeline = pipelineAt(helper.path(), main_);
        for (int round = 1; round <= 2; ++round) {
            const auto run = pipeline.client->fetchSmartData("sda");
            ASSERT_FALSE(run.ok());
            EXPECT_EQ(run.error(), c.failure);
        }
        const auto client = lines("SmartctlHelperClient");
        EXPECT_EQ(std::count_if(client.begin(), client.end(),
                                [&](const std::string& line) { return line.rfind(c.line, 0) == 0; }),
                  2);
        // One look by the helper manager (does a root helper listen?), then one connection per
        // request, each sent its request.
        const auto counts = helper.waitFor([](const auto& seen) { return seen.connections >= 3; }, 10s);
        EXPECT_EQ(counts.connections, 3U);
        if (c.behaviour == HelperSocketStandIn::Behaviour::neverAnswer) {
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
