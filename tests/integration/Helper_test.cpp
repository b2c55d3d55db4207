#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "integration/HelperTestClient.h"
#include "support/LoopVolume.h"
#include "support/Process.h"

namespace vantorix::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using protocol::HelperFailure;

const std::string kSocketActivate = "/usr/bin/systemd-socket-activate";

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(HelperActivation, SocketActivatedDaemonAnswersAndLeavesWhenIdle) {
    if (::access(kSocketActivate.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kSocketActivate << " (package systemd)";
    auto standIn = SmartctlStandIn::create(printing(kHelperFixture));
    const std::string socket = fs::path(standIn->path()).parent_path() / "activated.sock";
    // systemd-socket-activate listens, then on the first connection becomes the daemon (same pid).
    auto activator = RunningProcess::start(
        {kSocketActivate, "-l", socket, VANTORIX_HELPER_PATH, "--smartctl", standIn->path(), "--exit-idle-ms", "500"});
    ASSERT_TRUE(eventually([&] { return fs::exists(socket); }));
    auto client = std::make_unique<HelperClient>(socket);

    const auto version = client->ask(versionFrame());
    ASSERT_TRUE(version && std::holds_alternative<protocol::VersionReply>(*version));
    EXPECT_EQ(std::get<protocol::VersionReply>(*version).version + "\n", runProcess({VANTORIX_HELPER_PATH, "--version"}).out);
    const auto reply = client->ask(fetchFrame(rootDiskName()));
    ASSERT_NE(result(reply), nullptr);
    EXPECT_EQ(result(reply)->jsonData, slurp(kHelperFixture));
    EXPECT_EQ(standIn->starts().size(), 1U);

    // With no client left and nothing running, it exits by itself (systemd would start it again).
    client.reset();
    EXPECT_EQ(activator->waitForExit(10s), 0);
}

TEST(HelperActivation, RefusesToStartWithoutASocket) {
    const auto result = runProcess({VANTORIX_HELPER_PATH}, {{"LISTEN_FDS", std::nullopt}, {"LISTEN_PID", std::nullopt}});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("--socket PATH"), std::string::npos) << result.err;
    // A file at the socket path that is not a socket is left alone.
    char path[] = "/tmp/vantorix-not-a-socket-XXXXXX";
    ::close(::mkstemp(path));
    EXPECT_EQ(runProcess({VANTORIX_HELPER_PATH, "--socket", path}).exitStatus, 1);
    EXPECT_TRUE(fs::is_regular_file(path));
    fs::remove(path);
}

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
    const std::string output = fs::path(standIn->path()).parent_path() / "output.json";
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
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(child)));
    EXPECT_FALSE(fs::exists(daemon->socketPath()));
    EXPECT_TRUE(peerClosed(client.fd, 1s));
}

TEST(HelperRequests, ChildRunsWithAFixedEnvironmentAndNothingInherited) {
    auto standIn = SmartctlStandIn::create(printing(""));  // only for its temporary folder
    const std::string script = fs::path(standIn->path()).parent_path() / "inspect";
    std::ofstream(script) << "#!/bin/sh\n"
                             "echo \"pid $$\"\n"
                             "echo \"group $(cut -d' ' -f5 /proc/$$/stat)\"\n"
                             "echo \"environment $(tr '\\0' ' ' < /proc/$$/environ)\"\n"
                             "ls -l /proc/$$/fd\n";  // no pipeline: its pipe would show among the shell's
    fs::permissions(script, fs::perms::owner_all | fs::perms::others_exec |
                                             fs::perms::others_read);
    auto daemon = startHelper(script);
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());  // open while the child runs: it must not inherit it
    const auto reply = client.ask(fetchFrame(rootDiskName()));
    ASSERT_NE(result(reply), nullptr);
    std::map<std::string, std::string> facts;
    std::istringstream lines(result(reply)->jsonData);
    for (std::string line; std::getline(lines, line);) {
        if (const auto arrow = line.find(" -> "); arrow != std::string::npos) {  // "lr-x------ … 0 -> /dev/null"
            const auto number = line.rfind(' ', arrow - 1) + 1;
            facts["fd " + line.substr(number, arrow - number)] = line.substr(arrow + 4);
        } else if (const auto space = line.find(' '); space != std::string::npos) {
            facts[line.substr(0, space)] = line.substr(space + 1);
        }
    }
    EXPECT_EQ(facts["environment"], "PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C ");
    EXPECT_EQ(facts["group"], facts["pid"]);  // a process group of its own
    EXPECT_EQ(facts["fd 0"], "/dev/null");
    EXPECT_EQ(facts["fd 1"].rfind("pipe:", 0), 0U) << facts["fd 1"];
    EXPECT_EQ(facts["fd 2"].rfind("pipe:", 0), 0U) << facts["fd 2"];
    for (const auto& [key, target] : facts) {
        // Beyond 0 to 2, only the script the shell keeps open.
        if (key.rfind("fd ", 0) == 0 && key != "fd 0" && key != "fd 1" && key != "fd 2") {
            EXPECT_EQ(target, script) << key;
        }
    }
}

}  // namespace
}  // namespace vantorix::testing
