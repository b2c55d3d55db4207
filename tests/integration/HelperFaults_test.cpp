#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

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

TEST(HelperFaults, HangingRunsAreKilledAndAtMostFourRunAtOnce) {
    auto names = blockDeviceNames();
    if (names.size() < 5) GTEST_SKIP() << "needs five block devices, found " << names.size();
    names.resize(5);
    auto standIn = SmartctlStandIn::create(acting(StandInBehaviour::Mode::hang));
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);

    // Five devices, one client each: four runs start, the fifth waits for a free slot.
    const auto start = std::chrono::steady_clock::now();
    const auto clients = clientsAsking(*daemon, names);
    ASSERT_TRUE(eventually([&] { return standIn->starts().size() == 4; }));
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(standIn->starts().size(), 4U);
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(failure(clients[i]->reply(12s)), HelperFailure::timedOut) << names[i];  // 12 s: a hang guard
        std::cout << names[i] << " answered after "
                  << std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() << " s\n";
    }
    const auto starts = standIn->starts();
    ASSERT_EQ(starts.size(), 5U);
    EXPECT_EQ(starts.back(), (std::vector<std::string>{"--json", "-a", "-n", "standby", "/dev/" + names[4]}));
    EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
}

TEST(HelperFaults, FloodsAndMissingProgramsFailWithTheirErrors) {
    auto flood = SmartctlStandIn::create(acting(StandInBehaviour::Mode::flood));
    for (const auto& [program, expected] : std::vector<std::pair<std::string, HelperFailure>>{
             {flood->path(), HelperFailure::outputTooLarge}, {"/nonexistent/smartctl", HelperFailure::launchFailed}}) {
        auto daemon = startHelper(program);
        ASSERT_NE(daemon, nullptr);
        EXPECT_EQ(failure(HelperClient(daemon->socketPath()).ask(fetchFrame(rootDiskName()))), expected) << program;
        EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
        EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), kPeakKilobytes);
    }
}

TEST(HelperFaults, FiftyClientsOfOneLoopDeviceShareRunsInBoundedMemory) {
    if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    auto volume = LoopVolume::create("HELPER", 16U << 20U, &error);
    ASSERT_NE(volume, nullptr) << error;
    // 3 MiB of output: fifty private copies of its reply would take about 200 MiB.
    auto standIn = SmartctlStandIn::create(printing(""));
    const std::string output = std::filesystem::path(standIn->path()).parent_path() / "output.json";
    std::ofstream(output) << std::string(3U << 20U, 'y');
    standIn->setBehaviour(printing(output));
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);

    const auto clients = clientsAsking(*daemon, std::vector<std::string>(50, volume->deviceName()));
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
    const auto runs = standIn->starts().size();
    const auto peak = statusKilobytes(daemon->pid(), "VmHWM");
    std::cout << "50 clients: " << runs << " smartctl run(s), daemon VmHWM " << peak << " kB\n";
    EXPECT_LE(runs, 3U);
    EXPECT_LT(peak, kPeakKilobytes);
}

TEST(HelperFaults, FiftyClientsOfAHangingDeviceAreAllAnswered) {
    auto standIn = SmartctlStandIn::create(acting(StandInBehaviour::Mode::hang));
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    for (const auto& client : clientsAsking(*daemon, std::vector<std::string>(50, rootDiskName()))) {
        const auto code = failure(client->reply(12s));
        EXPECT_TRUE(code == HelperFailure::timedOut || code == HelperFailure::busy || code == HelperFailure::deviceStuck);
    }
    EXPECT_EQ(standIn->starts().size(), 1U);
    EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
}

TEST(HelperFaults, SigtermKillsRunsAndRemovesTheSocket) {
    auto standIn = SmartctlStandIn::create(acting(StandInBehaviour::Mode::hang));
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
