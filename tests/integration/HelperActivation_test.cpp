#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "integration/HelperTestClient.h"
#include "support/Process.h"

namespace vantorix::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

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

}  // namespace
}  // namespace vantorix::testing
