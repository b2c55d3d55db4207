#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "integration/HelperTestClient.h"
#include "support/LoopVolume.h"
#include "support/SmartctlStandIn.h"

namespace vantorix::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using protocol::HelperFailure;

const std::string kFixture = std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json";

std::unique_ptr<HelperDaemon> startDaemon(const std::string& smartctl, std::vector<std::string> extra = {}) {
    std::string error;
    auto daemon = HelperDaemon::start({smartctl, std::move(extra)}, &error);
    EXPECT_NE(daemon, nullptr) << error;
    return daemon;
}

// Waits (at most 5 s) until the daemon has no child left, zombies included.
bool childrenGone(pid_t daemon) {
    for (const auto until = Clock::now() + 5s; Clock::now() < until; std::this_thread::sleep_for(10ms)) {
        if (childrenOf(daemon).empty()) return true;
    }
    return false;
}

bool eventually(const std::function<bool()>& condition) {
    for (const auto until = Clock::now() + 5s; Clock::now() < until; std::this_thread::sleep_for(10ms)) {
        if (condition()) return true;
    }
    return false;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

TEST(HelperFaults, HangingRunsAreKilledAndAtMostFourRunAtOnce) {
    FakeDisks disks(5);
    if (::geteuid() != 0 || !disks.made) GTEST_SKIP() << "needs root to make device nodes with mknod";
    auto standIn = SmartctlStandIn::create(acting(StandInBehaviour::Mode::hang));
    auto daemon = startDaemon(standIn->path(), disks.arguments());
    ASSERT_NE(daemon, nullptr);

    // Five devices, one client each: four runs start, the fifth waits for a free slot.
    std::vector<std::unique_ptr<HelperClient>> clients;
    const auto start = Clock::now();
    for (const auto& name : disks.names) {
        clients.push_back(std::make_unique<HelperClient>(daemon->socketPath()));
        ASSERT_TRUE(clients.back()->send(fetchFrame(name)));
    }
    ASSERT_TRUE(eventually([&] { return standIn->starts().size() == 4; }));
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(standIn->starts().size(), 4U);
    for (int i = 0; i < 5; ++i) {
        const auto reply = clients[static_cast<std::size_t>(i)]->reply(12s);  // a hang guard, not a timing check
        EXPECT_EQ(failure(reply), HelperFailure::timedOut) << disks.names[static_cast<std::size_t>(i)];
        std::cout << disks.names[static_cast<std::size_t>(i)] << " answered after " << secondsSince(start) << " s\n";
    }
    const auto starts = standIn->starts();
    ASSERT_EQ(starts.size(), 5U);
    EXPECT_EQ(starts.back(), (std::vector<std::string>{"--json", "-a", "-n", "standby", disks.devicePath("sde")}));
    EXPECT_TRUE(childrenGone(daemon->pid()));
}

TEST(HelperFaults, FloodsAndMissingProgramsFailWithTheirErrors) {
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto flood = SmartctlStandIn::create(acting(StandInBehaviour::Mode::flood));
    struct Case {
        std::string program;
        HelperFailure expected;
    };
    for (const auto& c : std::vector<Case>{{flood->path(), HelperFailure::outputTooLarge},
                                           {"/nonexistent/smartctl", HelperFailure::launchFailed}}) {
        auto daemon = startDaemon(c.program);
        ASSERT_NE(daemon, nullptr);
        EXPECT_EQ(failure(HelperClient(daemon->socketPath()).ask(fetchFrame(disk))), c.expected) << c.program;
        EXPECT_TRUE(childrenGone(daemon->pid()));
        EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), 64U * 1024U) << "the flood was not kept";
    }
}

TEST(HelperFaults, RequestsWithinASecondShareOneRun) {
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto standIn = SmartctlStandIn::create(printing(kFixture));
    auto daemon = startDaemon(standIn->path());
    ASSERT_NE(daemon, nullptr);
    HelperClient first(daemon->socketPath());
    HelperClient second(daemon->socketPath());
    const auto a = first.ask(fetchFrame(disk));
    const auto b = second.ask(fetchFrame(disk));
    ASSERT_NE(result(a), nullptr);
    ASSERT_NE(result(b), nullptr);
    EXPECT_EQ(*result(a), *result(b));
    EXPECT_EQ(standIn->starts().size(), 1U);
    std::this_thread::sleep_for(1200ms);
    ASSERT_NE(result(first.ask(fetchFrame(disk))), nullptr);
    EXPECT_EQ(standIn->starts().size(), 2U);
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
    auto daemon = startDaemon(standIn->path());
    ASSERT_NE(daemon, nullptr);

    std::vector<std::unique_ptr<HelperClient>> clients;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(std::make_unique<HelperClient>(daemon->socketPath()));
        ASSERT_TRUE(clients.back()->send(fetchFrame(volume->bsdName())));
    }
    // Every reply is taken off its socket first and decoded afterwards, so that no client keeps
    // the daemon waiting to write for longer than it allows.
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
    EXPECT_LT(peak, 64U * 1024U);
}

TEST(HelperFaults, FiftyClientsOfAHangingDeviceAreAllAnswered) {
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto standIn = SmartctlStandIn::create(acting(StandInBehaviour::Mode::hang));
    auto daemon = startDaemon(standIn->path());
    ASSERT_NE(daemon, nullptr);
    std::vector<std::unique_ptr<HelperClient>> clients;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(std::make_unique<HelperClient>(daemon->socketPath()));
        ASSERT_TRUE(clients.back()->send(fetchFrame(disk)));
    }
    for (const auto& client : clients) {
        const auto code = failure(client->reply(12s));
        EXPECT_TRUE(code == HelperFailure::timedOut || code == HelperFailure::busy || code == HelperFailure::deviceStuck);
    }
    EXPECT_EQ(standIn->starts().size(), 1U);
    EXPECT_TRUE(childrenGone(daemon->pid()));
}

TEST(HelperFaults, SigtermKillsRunsAndRemovesTheSocket) {
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto standIn = SmartctlStandIn::create(acting(StandInBehaviour::Mode::hang));
    auto daemon = startDaemon(standIn->path());
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.send(fetchFrame(disk)));
    ASSERT_TRUE(eventually([&] { return !childrenOf(daemon->pid()).empty(); }));
    const pid_t child = childrenOf(daemon->pid()).front();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(child)));
    EXPECT_FALSE(std::filesystem::exists(daemon->socketPath()));
    EXPECT_TRUE(peerClosed(client.fd, 1s));
}

}  // namespace
}  // namespace vantorix::testing
