#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "integration/HelperTestClient.h"
#include "support/Process.h"
#include "support/SmartctlStandIn.h"

namespace vantorix::testing {
namespace {

using namespace std::chrono_literals;
using protocol::HelperFailure;

const std::string kFixture = std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json";

std::unique_ptr<HelperDaemon> startDaemon(const std::string& smartctl, std::vector<std::string> extra = {}) {
    std::string error;
    auto daemon = HelperDaemon::start({smartctl, std::move(extra)}, &error);
    EXPECT_NE(daemon, nullptr) << error;
    return daemon;
}

TEST(HelperRequests, RealSmartctlReportsOnTheRootDisk) {
    const std::string smartctl = "/usr/sbin/smartctl";
    if (::geteuid() != 0) GTEST_SKIP() << "smartctl needs root to open disks";
    if (::access(smartctl.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << smartctl;
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto daemon = startDaemon(smartctl);
    ASSERT_NE(daemon, nullptr);

    const auto reply = HelperClient(daemon->socketPath()).ask(fetchFrame(disk));
    const auto* run = result(reply);
    ASSERT_NE(run, nullptr);
    // What smartctl says when run directly, the same way.
    const auto direct = runProcess({smartctl, "--json", "-a", "-n", "standby", "/dev/" + disk});
    EXPECT_EQ(run->commandDescription, smartctl + " --json -a -n standby /dev/" + disk);
    EXPECT_EQ(run->terminationStatus, direct.exitStatus);
    EXPECT_EQ(run->standardError, direct.err);
    const auto document = nlohmann::json::parse(run->jsonData);
    EXPECT_EQ(document["smartctl"]["argv"].back(), "/dev/" + disk);
    EXPECT_EQ(document["smartctl"]["exit_status"], run->terminationStatus);
}

TEST(HelperRequests, HostileNamesAreRefusedWithoutRunningAnything) {
    auto standIn = SmartctlStandIn::create(printing(kFixture));
    auto daemon = startDaemon(standIn->path());
    ASSERT_NE(daemon, nullptr);
    const std::vector<std::pair<std::string, HelperFailure>> cases = {
        {"../sda", HelperFailure::invalidDeviceName},     {"sda/../../etc", HelperFailure::invalidDeviceName},
        {"-a", HelperFailure::invalidDeviceName},         {"--scan", HelperFailure::invalidDeviceName},
        {"sda;reboot", HelperFailure::invalidDeviceName}, {"sda\n", HelperFailure::invalidDeviceName},
        {"", HelperFailure::invalidDeviceName},           {std::string(65, 'a'), HelperFailure::invalidDeviceName},
        {"sd\xC3\xA4", HelperFailure::invalidDeviceName}, {".hidden", HelperFailure::invalidDeviceName},
        {"/dev/sda", HelperFailure::invalidDeviceName},   {"null", HelperFailure::deviceNotFound},
        {"tty", HelperFailure::deviceNotFound},           {"sdzz9", HelperFailure::deviceNotFound},
    };
    // Pipelined on one connection: every frame first, then the replies in order.
    HelperClient client(daemon->socketPath());
    std::string frames;
    for (const auto& [name, expected] : cases) frames += fetchFrame(name);
    ASSERT_TRUE(client.send(frames));
    for (const auto& [name, expected] : cases) EXPECT_EQ(failure(client.reply()), expected) << name;
    EXPECT_TRUE(standIn->starts().empty());
}

TEST(HelperRequests, AbusiveClientsAreDroppedWhileOthersAreServed) {
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    // Replies of about 4 MiB (base64 of 3 MiB), more than a socket buffer holds.
    auto standIn = SmartctlStandIn::create(printing(""));
    const std::string bigOutput = std::filesystem::path(standIn->path()).parent_path() / "big.json";
    std::ofstream(bigOutput) << std::string(3U << 20U, 'x');
    standIn->setBehaviour(printing(bigOutput));
    auto daemon = startDaemon(standIn->path(), {"--idle-timeout-ms", "1000"});
    ASSERT_NE(daemon, nullptr);
    HelperClient good(daemon->socketPath());
    const auto served = [&good] {
        const auto reply = good.ask(versionFrame());
        return reply && std::holds_alternative<protocol::VersionReply>(*reply);
    };
    ASSERT_TRUE(served());

    HelperClient oversized(daemon->socketPath());
    ASSERT_TRUE(oversized.send(std::string("\x00\x80\x00\x01", 4)));  // 8 MiB + 1
    EXPECT_TRUE(peerClosed(oversized.fd, 3s));
    HelperClient notAnObject(daemon->socketPath());
    ASSERT_TRUE(notAnObject.send(protocol::framed("[\"fetchSMARTDataForBSDName\",\"sda\"]")));
    EXPECT_TRUE(peerClosed(notAnObject.fd, 3s));
    HelperClient unknownMethod(daemon->socketPath());
    EXPECT_EQ(failure(unknownMethod.ask(protocol::framed(R"({"method":"runCommand","argv":["rm","-rf","/"]})"))),
              HelperFailure::unknownMethod);
    EXPECT_TRUE(std::holds_alternative<protocol::VersionReply>(unknownMethod.ask(versionFrame()).value()));
    {
        HelperClient leaves(daemon->socketPath());  // asks, then goes away before the reply
        ASSERT_TRUE(leaves.send(fetchFrame(disk)));
    }
    HelperClient halfFrame(daemon->socketPath());
    ASSERT_TRUE(halfFrame.send(versionFrame().substr(0, 10)));
    HelperClient silent(daemon->socketPath());
    HelperClient notReading(daemon->socketPath());
    ASSERT_TRUE(notReading.send(fetchFrame(disk) + fetchFrame(disk) + fetchFrame(disk)));
    // Past the idle time; notReading reads nothing meanwhile, while good keeps being served.
    for (const auto until = std::chrono::steady_clock::now() + 2500ms; std::chrono::steady_clock::now() < until;) {
        ASSERT_TRUE(served());
        std::this_thread::sleep_for(200ms);
    }
    EXPECT_TRUE(peerClosed(halfFrame.fd, 5s));
    EXPECT_TRUE(peerClosed(silent.fd, 5s));
    // Its replies stopped at what the socket held when it was dropped: it does not get all 12 MiB.
    EXPECT_TRUE(peerClosed(notReading.fd, 5s));
    const auto reply = good.ask(fetchFrame(disk));
    ASSERT_NE(result(reply), nullptr);
    EXPECT_EQ(result(reply)->jsonData.size(), 3U << 20U);
    EXPECT_TRUE(served());
}

TEST(HelperRequests, ChildRunsWithAFixedEnvironmentAndNothingInherited) {
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto standIn = SmartctlStandIn::create(printing(""));  // only for its temporary folder
    const std::string script = std::filesystem::path(standIn->path()).parent_path() / "inspect";
    std::ofstream(script) << "#!/bin/sh\n"
                             "echo \"pid $$\"\n"
                             "echo \"group $(cut -d' ' -f5 /proc/$$/stat)\"\n"
                             "echo \"environment $(tr '\\0' ' ' < /proc/$$/environ)\"\n"
                             "ls -l /proc/$$/fd | sed -n 's/.* \\([0-9]*\\) -> \\(.*\\)/fd \\1 \\2/p'\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all | std::filesystem::perms::group_exec |
                                             std::filesystem::perms::others_exec | std::filesystem::perms::others_read |
                                             std::filesystem::perms::group_read);
    auto daemon = startDaemon(script);
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());
    client.send(versionFrame());  // this connection is open while the child runs
    ASSERT_TRUE(client.reply());
    const auto reply = client.ask(fetchFrame(disk));
    ASSERT_NE(result(reply), nullptr);
    std::map<std::string, std::string> facts;
    std::map<int, std::string> descriptors;
    std::istringstream lines(result(reply)->jsonData);
    for (std::string key, value; lines >> key && std::getline(lines, value);) {
        value.erase(0, 1);
        if (key == "fd") {
            const auto space = value.find(' ');
            descriptors[std::stoi(value.substr(0, space))] = value.substr(space + 1);
        } else {
            facts[key] = value;
        }
    }
    EXPECT_EQ(facts["environment"], "PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C ");
    EXPECT_EQ(facts["group"], facts["pid"]);  // a process group of its own
    EXPECT_EQ(descriptors[0], "/dev/null");
    EXPECT_EQ(descriptors[1].rfind("pipe:", 0), 0U) << descriptors[1];
    EXPECT_EQ(descriptors[2].rfind("pipe:", 0), 0U) << descriptors[2];
    for (const auto& [fd, target] : descriptors) {
        // The shell keeps its script open; nothing else may come from the daemon.
        if (fd > 2) {
            EXPECT_EQ(target, script) << "descriptor " << fd;
        }
    }
}

}  // namespace
}  // namespace vantorix::testing
