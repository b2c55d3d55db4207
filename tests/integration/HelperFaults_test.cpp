#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <fstream>

#include "integration/HelperTestClient.h"
#include "support/LoopVolume.h"

namespace vantorix::testing {
namespace {

using namespace std::chrono_literals;
using protocol::HelperFailure;

std::vector<std::unique_ptr<HelperClient>> clientsAsking(const HelperDaemon& daemon, const std::vector<std::string>& names) {
    std::vector<std::unique_ptr<HelperClient>> clients;
    for (const auto& name : names) {
        clients.push_back(std::make_unique<HelperClient>(daemon.socketPath()));
        EXPECT_TRUE(clients.back()->send(fetchFrame(name)));
    }
    return clients;
}

// Five devices, one client each, and 49 more clients of the first: four runs start, the fifth device
// waits for a free slot, the clients of one device share its run, and every hanging run is killed.
TEST(HelperFaults, HangingRunsAreKilledAtMostFourRunAtOnceAndClientsOfADeviceShareItsRun) {
    if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::vector<std::unique_ptr<LoopVolume>> volumes;  // only for their device names
    std::vector<std::string> names;
    for (std::string error; names.size() < 5; names.push_back(volumes.back()->deviceName())) {
        volumes.push_back(LoopVolume::create("HANG", 8U << 20U, &error));
        ASSERT_NE(volumes.back(), nullptr) << error;
    }
    auto standIn = SmartctlStandIn::create({StandInBehaviour::Mode::hang, "", "", 0});
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    auto asked = names;
    asked.insert(asked.end(), 49, names[0]);
    const auto clients = clientsAsking(*daemon, asked);
    ASSERT_TRUE(eventually([&] { return standIn->starts().size() == 4; }));
    // No fifth run starts before one of the four has ended, and it is answered as it ends.
    const auto answered = [&] {
        std::vector<pollfd> ready;
        for (std::size_t i = 0; i < 4; ++i) ready.push_back({clients[i]->fd, POLLIN, 0});
        return ::poll(ready.data(), ready.size(), 10) > 0;
    };
    for (int round = 0; round < 2000; ++round) {
        const auto started = standIn->starts().size();
        if (answered()) break;
        ASSERT_LE(started, 4U);
    }
    for (std::size_t i = 0; i < asked.size(); ++i) {
        const auto code = failure(clients[i]->reply(12s));  // 12 s: a hang guard
        const bool shared = i >= names.size();
        EXPECT_TRUE(code == HelperFailure::timedOut ||
                    (shared && (code == HelperFailure::busy || code == HelperFailure::deviceStuck)))
            << i;
    }
    const auto starts = standIn->starts();
    ASSERT_EQ(starts.size(), 5U);
    EXPECT_EQ(starts.back(), (std::vector<std::string>{"--json", "-a", "-n", "standby", "/dev/" + names[4]}));
    EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
}

TEST(HelperFaults, FloodsAndMissingProgramsFailWithTheirErrors) {
    auto flood = SmartctlStandIn::create({StandInBehaviour::Mode::flood, "", "", 0});
    for (const auto& [program, expected] : std::vector<std::pair<std::string, HelperFailure>>{
             {flood->path(), HelperFailure::outputTooLarge}, {"/nonexistent/smartctl", HelperFailure::launchFailed}}) {
        auto daemon = startHelper(program);
        ASSERT_NE(daemon, nullptr);
        EXPECT_EQ(failure(HelperClient(daemon->socketPath()).ask(fetchFrame(rootDiskName()))), expected) << program;
        EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
        EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), kPeakKilobytes);
    }
}

TEST(HelperFaults, FiftyClientsOfOneDeviceShareRunsInBoundedMemory) {
    // 3 MiB of output: fifty private copies of its reply would take about 200 MiB.
    auto standIn = SmartctlStandIn::create(printing(""));
    const std::string output = std::filesystem::path(standIn->path()).parent_path() / "output.json";
    std::ofstream(output) << std::string(3U << 20U, 'y');
    standIn->setBehaviour(printing(output));
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);

    const auto clients = clientsAsking(*daemon, std::vector<std::string>(50, rootDiskName()));
    // Every reply is taken off its socket before any is decoded, so that no client keeps the
    // daemon waiting to write for longer than it allows.
    std::vector<std::optional<std::string>> payloads;
    for (const auto& client : clients) payloads.push_back(readFrame(client->fd, 10s));
    for (const auto& payload : payloads) {
        ASSERT_TRUE(payload.has_value());
        const auto reply = protocol::parsedReply(*payload);
        ASSERT_NE(result(reply), nullptr);
        EXPECT_EQ(result(reply)->jsonData.size(), 3U << 20U);
    }
    EXPECT_LE(standIn->starts().size(), 3U);
    EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), kPeakKilobytes);
}

TEST(HelperFaults, SigtermKillsRunsAndRemovesTheSocket) {
    auto standIn = SmartctlStandIn::create({StandInBehaviour::Mode::hang, "", "", 0});
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.send(fetchFrame(rootDiskName())));
    ASSERT_TRUE(eventually([&] { return !childrenOf(daemon->pid()).empty(); }));
    const pid_t child = childrenOf(daemon->pid()).front();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(child)));
    EXPECT_FALSE(std::filesystem::exists(daemon->socketPath()));
    EXPECT_TRUE(peerClosed(client.fd, 1s));
}

}  // namespace
}  // namespace vantorix::testing
