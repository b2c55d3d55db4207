#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "integration/HelperTestClient.h"
#include "support/Process.h"
#include "support/SmartctlStandIn.h"

namespace vantorix::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kFixture = std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json";
const std::string kSocketActivate = "/usr/bin/systemd-socket-activate";
const std::string kAnalyze = "/usr/bin/systemd-analyze";

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A child process started with fork/exec, killed and reaped with the object.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        pid = ::fork();
        if (pid == 0) {
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }
    ~Child() {
        if (pid > 0 && !waitForExit(pid, 0ms)) {
            ::kill(pid, SIGKILL);
            waitForExit(pid, 5s);
        }
    }
    pid_t pid;
};

TEST(HelperActivation, SocketActivatedDaemonAnswersAndLeavesWhenIdle) {
    if (::access(kSocketActivate.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kSocketActivate << " (package systemd)";
    const std::string disk = rootDiskName();
    ASSERT_FALSE(disk.empty());
    auto standIn = SmartctlStandIn::create(printing(kFixture));
    const std::string socket = fs::path(standIn->path()).parent_path() / "activated.sock";
    // systemd-socket-activate listens, then on the first connection becomes the daemon (same pid).
    Child activator({kSocketActivate, "-l", socket, VANTORIX_HELPER_PATH, "--smartctl", standIn->path(),
                     "--exit-idle-ms", "500"});
    std::unique_ptr<HelperClient> client;
    for (const auto until = std::chrono::steady_clock::now() + 5s; !client && std::chrono::steady_clock::now() < until;) {
        if (fs::exists(socket)) client = std::make_unique<HelperClient>(socket);
        else std::this_thread::sleep_for(10ms);
    }
    ASSERT_NE(client, nullptr);
    ASSERT_GE(client->fd, 0);

    const auto version = client->ask(versionFrame());
    ASSERT_TRUE(version && std::holds_alternative<protocol::VersionReply>(*version));
    const auto printed = runProcess({VANTORIX_HELPER_PATH, "--version"});
    EXPECT_EQ(std::get<protocol::VersionReply>(*version).version + "\n", printed.out);
    const auto reply = client->ask(fetchFrame(disk));
    ASSERT_NE(result(reply), nullptr);
    EXPECT_EQ(result(reply)->jsonData, slurp(kFixture));
    EXPECT_EQ(standIn->starts().size(), 1U);

    // With no client left and nothing running, it exits by itself (systemd would start it again).
    client.reset();
    EXPECT_EQ(waitForExit(activator.pid, 10s), 0);
}

TEST(HelperActivation, RefusesToStartWithoutASocket) {
    const auto result = runProcess({VANTORIX_HELPER_PATH}, {{"LISTEN_FDS", std::nullopt}, {"LISTEN_PID", std::nullopt}});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.err.find("--socket PATH"), std::string::npos) << result.err;
    // A path that is not a socket is left alone.
    char pattern[] = "/tmp/vantorix-not-a-socket-XXXXXX";
    const int fd = ::mkstemp(pattern);
    ASSERT_GE(fd, 0);
    ::close(fd);
    const auto occupied = runProcess({VANTORIX_HELPER_PATH, "--socket", pattern});
    EXPECT_EQ(occupied.exitStatus, 1);
    EXPECT_TRUE(fs::is_regular_file(pattern));
    fs::remove(pattern);
}

TEST(HelperActivation, SystemdUnitsPassVerification) {
    if (::access(kAnalyze.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kAnalyze << " (package systemd)";
    const std::string units = VANTORIX_HELPER_UNIT_DIR;
    const std::string service = slurp(units + "/vantorix-smartctl-helper.service");
    std::smatch execStart;
    ASSERT_TRUE(std::regex_search(service, execStart, std::regex("\nExecStart=(/\\S+)\n")));
    EXPECT_EQ(fs::path(execStart[1].str()).filename(), "vantorix-smartctl-helper");
    EXPECT_EQ(fs::path(execStart[1].str()).parent_path().filename(), "vantorix");

    // verify wants the program to exist: the units as configured, but pointing at the program as built.
    char pattern[] = "/tmp/vantorix-units-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::string folder = pattern;
    std::ofstream(folder + "/vantorix-smartctl-helper.service")
        << std::regex_replace(service, std::regex("\nExecStart=\\S+\n"), "\nExecStart=" VANTORIX_HELPER_PATH "\n");
    fs::copy_file(units + "/vantorix-smartctl-helper.socket", folder + "/vantorix-smartctl-helper.socket");
    const auto verified = runProcess({kAnalyze, "verify", "--man=no", folder + "/vantorix-smartctl-helper.socket",
                                      folder + "/vantorix-smartctl-helper.service"},
                                     {{"SYSTEMD_LOG_LEVEL", "notice"}});
    fs::remove_all(folder);
    EXPECT_EQ(verified.exitStatus, 0) << verified.err;
    // Warnings (an unknown key, a bad value) leave the status at 0: there must be none.
    EXPECT_EQ(verified.out + verified.err, "");
}

}  // namespace
}  // namespace vantorix::testing
