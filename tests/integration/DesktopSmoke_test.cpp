#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "support/Process.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;

// The real program on a real X server (Xvfb): it opens its window and says so.
TEST(DesktopSmoke, TheProgramStartsUnderXvfbAndSaysItLaunched) {
    if (::access("/usr/bin/Xvfb", X_OK) != 0) GTEST_SKIP() << "no Xvfb (package xvfb)";
    const std::string display = ":" + std::to_string(90 + ::getpid() % 500);
    auto server = testing::RunningProcess::start({"/usr/bin/Xvfb", display, "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
    const auto socket = "/tmp/.X11-unix/X" + display.substr(1);
    for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(std::filesystem::exists(socket)) << server->standardError();

    auto app = testing::RunningProcess::start({VANTORIX_APP_PATH},
                                              {{"DISPLAY", display}, {"QT_QPA_PLATFORM", "xcb"},
                                               {"VANTORIX_HELPER_SOCKET", "/nonexistent/helper.sock"}});
    const auto line = app->readLine(30s);
    ASSERT_TRUE(line.has_value()) << app->standardError();
    EXPECT_EQ(*line, "[Vantorix] App launched and root window created.");
    app->signal(SIGTERM);
    EXPECT_TRUE(app->waitForExit(10s).has_value());
    server->signal(SIGTERM);
    EXPECT_TRUE(server->waitForExit(10s).has_value());
}

}  // namespace
}  // namespace vantorix
