#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "integration/HelperTestClient.h"
#include "support/Process.h"

namespace vantorix::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kSocketActivate = "/usr/bin/systemd-socket-activate";
const std::string kAnalyze = "/usr/bin/systemd-analyze";

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(HelperActivation, SocketActivatedDaemonAnswersAndLeavesWhenIdle) {
    if (::access(kSocketActivate.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kSocketActivate << " (package systemd)";
    auto standIn = SmartctlStandIn::create(printing(kHelperFixture));
    const std::string socket = fs::path(standIn->path()).parent_path() / "activated.sock";
    // systemd-socket-activate listens, then on the first connection becomes the daemon (same pid).
    std::vector<std::string> arguments{kSocketActivate, "-l", socket, VANTORIX_HELPER_PATH, "--smartctl",
                                       standIn->path(), "--exit-idle-ms", "500"};
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t activator = ::fork();
    if (activator == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    struct Reaper {  // kills the activator (or the daemon it became) if it is still there at the end
        pid_t pid;
        ~Reaper() {
            if (waitForExit(pid, 0ms)) return;
            ::kill(pid, SIGKILL);
            waitForExit(pid, 5s);
        }
    } reaper{activator};
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
    EXPECT_EQ(waitForExit(activator, 10s), 0);
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

TEST(HelperActivation, SystemdUnitsPassVerification) {
    if (::access(kAnalyze.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kAnalyze << " (package systemd)";
    const std::string units = VANTORIX_HELPER_UNIT_DIR;
    const std::string service = slurp(units + "/vantorix-smartctl-helper.service");
    const std::regex execStart("\nExecStart=(/\\S+)/libexec/vantorix/vantorix-smartctl-helper\n");
    ASSERT_TRUE(std::regex_search(service, execStart)) << service;

    // verify wants the program to exist: the units as configured, but pointing at the program as built.
    char pattern[] = "/tmp/vantorix-units-XXXXXX";
    const std::string folder = ::mkdtemp(pattern);
    std::ofstream(folder + "/vantorix-smartctl-helper.service")
        << std::regex_replace(service, execStart, "\nExecStart=" VANTORIX_HELPER_PATH "\n");
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
