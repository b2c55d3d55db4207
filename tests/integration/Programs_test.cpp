#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "integration/HelperTestClient.h"
#include "support/TemporaryFolder.h"
#include "support/VirtualDisplay.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::runProcess;

template <typename T>
std::unique_ptr<T, decltype(&std::free)> owned(T* reply) {
    return {reply, &std::free};
}

// Asks the shown top-level window titled `title` on `display` to close, as a window manager does when
// its close button is pressed (WM_DELETE_WINDOW). False when there is no such window.
bool closeWindow(const std::string& display, const std::string& title) {
    xcb_connection_t* connection = xcb_connect(display.c_str(), nullptr);
    const auto atom = [&](const char* name) {
        const auto reply = owned(xcb_intern_atom_reply(
            connection, xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr));
        return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    };
    bool sent = false;
    if (xcb_connection_has_error(connection) == 0) {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
        const auto tree = owned(xcb_query_tree_reply(connection, xcb_query_tree(connection, root), nullptr));
        const xcb_window_t* windows = tree ? xcb_query_tree_children(tree.get()) : nullptr;
        for (int i = 0; tree && i < xcb_query_tree_children_length(tree.get()) && !sent; ++i) {
            const auto name = owned(xcb_get_property_reply(
                connection, xcb_get_property(connection, 0, windows[i], XCB_ATOM_WM_NAME, XCB_ATOM_ANY, 0, 256),
                nullptr));
            // Only a shown window: Qt gives hidden helper windows (popups, tooltips) the same name.
            const auto attributes = owned(xcb_get_window_attributes_reply(
                connection, xcb_get_window_attributes(connection, windows[i]), nullptr));
            if (!name || !attributes || attributes->map_state != XCB_MAP_STATE_VIEWABLE ||
                std::string(static_cast<const char*>(xcb_get_property_value(name.get())),
                            static_cast<std::size_t>(xcb_get_property_value_length(name.get()))) != title) {
                continue;
            }
            xcb_client_message_event_t event = {};
            event.response_type = XCB_CLIENT_MESSAGE;
            event.format = 32;
            event.window = windows[i];
            event.type = atom("WM_PROTOCOLS");
            event.data.data32[0] = atom("WM_DELETE_WINDOW");
            event.data.data32[1] = XCB_CURRENT_TIME;
            xcb_send_event(connection, 0, windows[i], XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&event));
            xcb_flush(connection);
            sent = true;
        }
    }
    xcb_disconnect(connection);
    return sent;
}

// The real program on a real X server (Xvfb): it opens its window, says so, and ends however it is
// asked to: SIGTERM, SIGINT, or its window's close button. It is monitoring at 1 ms meanwhile, and
// its SMART request hangs in a helper whose smartctl never answers: the program ends without
// waiting for the request's time-out.
TEST(DesktopSmoke, StartsUnderXvfbAndEndsOnSignalsAndOnCloseWithoutWaitingForSmart) {
    const testing::VirtualDisplay x;
    if (x.display.empty()) GTEST_SKIP() << x.error;
    auto smartctl = testing::SmartctlStandIn::create({testing::StandInBehaviour::Mode::hang, "", "", 0});
    const auto helper = testing::startHelper(smartctl->path());
    ASSERT_NE(helper, nullptr);

    for (const std::string way : {"SIGTERM", "SIGINT", "close"}) {
        SCOPED_TRACE(way);
        auto app = testing::RunningProcess::start({VANTORIX_APP_PATH, "--precision", "1", "--monitor", "/"},
                                                  {{"DISPLAY", x.display},
                                                   {"QT_QPA_PLATFORM", "xcb"},
                                                   {"VANTORIX_HELPER_SOCKET", helper->socketPath()},
                                                   {"VANTORIX_LOG", "error"}});
        const auto line = app->readLine(30s);
        ASSERT_TRUE(line.has_value()) << app->standardError();
        EXPECT_EQ(*line, "[Vantorix] App launched and root window created.");
        // Until the SMART request reaches the stand-in, which then hangs.
        ASSERT_TRUE(testing::eventually([&] { return !smartctl->starts().empty(); }));
        // Until the window is shown and Qt listens for the request, it may pass unheard: asked again
        // every 100 ms.
        std::optional<int> status;
        if (way == "close") {
            for (int i = 0; i < 300 && !status; ++i) {
                closeWindow(x.display, "Vantorix");
                status = app->waitForExit(100ms);
            }
        } else {
            app->signal(way == "SIGTERM" ? SIGTERM : SIGINT);
        }
        if (!status) status = app->waitForExit(30s);
        EXPECT_EQ(status, 0) << app->standardError();
        EXPECT_EQ(app->standardError().find("Timed out waiting for helper response"), std::string::npos)
            << app->standardError();
    }
}

// The package made from this build, as a person installs it: dpkg -i, the installed programs run,
// dpkg --purge, and nothing of it is left on the machine or running.
TEST(Package, InstallsRunsAndPurgesWithoutATrace) {
    if (::geteuid() != 0) GTEST_SKIP() << "dpkg -i needs root";
    if (::access("/usr/bin/dpkg", X_OK) != 0 || ::access("/usr/bin/cpack", X_OK) != 0)
        GTEST_SKIP() << "no dpkg or cpack";
    if (runProcess({"/usr/bin/dpkg-query", "-W", "-f=${Status}", "vantorix"}).out.find("installed") !=
        std::string::npos)
        GTEST_SKIP() << "a vantorix package is installed already; not touching it";
    const fs::path config = fs::path(VANTORIX_BUILD_DIR) / "CPackConfig.cmake";
    ASSERT_TRUE(fs::exists(config));

    const testing::TemporaryFolder folder;  // removed however the test ends
    const fs::path& out = folder.path();
    const auto made = runProcess({"/usr/bin/cpack", "-G", "DEB", "--config", config.string(), "-B", out.string()});
    ASSERT_EQ(made.exitStatus, 0) << made.out << made.err;
    fs::path package;
    for (const auto& entry : fs::directory_iterator(out))
        if (entry.path().extension() == ".deb") package = entry.path();
    ASSERT_FALSE(package.empty()) << made.out;

    const auto installed = runProcess({"/usr/bin/dpkg", "-i", package.string()});
    ASSERT_EQ(installed.exitStatus, 0) << installed.out << installed.err;
    std::vector<std::string> files;
    std::istringstream listed(runProcess({"/usr/bin/dpkg-query", "-L", "vantorix"}).out);
    for (std::string line; std::getline(listed, line);) files.push_back(line);

    const auto version = runProcess({"/usr/bin/vantorix-cli", "--version"});
    EXPECT_EQ(version.out, "vantorix-cli " VANTORIX_VERSION " (build " VANTORIX_BUILD_NUMBER ")\n");
    const auto info = runProcess({"/usr/bin/vantorix-cli", "info", "/", "--json"}, {{"LANGUAGE", "en_US.UTF-8"}});
    EXPECT_EQ(info.exitStatus, 0) << info.err;
    EXPECT_NE(info.out.find("\"device\""), std::string::npos);
    const auto manual = runProcess({"/usr/bin/man", "-P", "cat", "vantorix-cli"}, {{"MANWIDTH", "100"}});
    for (const char* subcommand : {"info", "monitor", "bench", "smart", "helper", "check-update", "feedback", "serve"})
        EXPECT_NE(manual.out.find(std::string("vantorix-cli ") + subcommand), std::string::npos) << subcommand;
    // The desktop entry, the metainfo and the units as installed pass their checkers without a remark.
    const auto desktop = runProcess(
        {"/usr/bin/desktop-file-validate", "/usr/share/applications/com.vantorix.Vantorix.desktop"});
    EXPECT_EQ(desktop.exitStatus, 0);
    EXPECT_EQ(desktop.out + desktop.err, "");
    const auto metainfo = runProcess({"/usr/bin/appstreamcli", "validate", "--no-net", "--explain",
                                      "/usr/share/metainfo/com.vantorix.Vantorix.metainfo.xml"});
    EXPECT_EQ(metainfo.exitStatus, 0) << metainfo.out;
    EXPECT_EQ(metainfo.out.find("W:"), std::string::npos) << metainfo.out;
    const auto verified = runProcess(
        {"/usr/bin/systemd-analyze", "verify", "--man=no", "/usr/lib/systemd/system/vantorix-smartctl-helper.socket",
         "/usr/lib/systemd/system/vantorix-smartctl-helper.service",
         "/usr/lib/systemd/system/vantorix-exporter.service"},
        {{"SYSTEMD_LOG_LEVEL", "notice"}});
    EXPECT_EQ(verified.exitStatus, 0);
    // Warnings (an unknown key, a bad value) leave the status at 0: there must be none.
    EXPECT_EQ(verified.out + verified.err, "");
    // The installed units start the installed programs.
    const std::string units = testing::fileContents("/usr/lib/systemd/system/vantorix-smartctl-helper.service") +
                              testing::fileContents("/usr/lib/systemd/system/vantorix-exporter.service");
    EXPECT_NE(units.find("\nExecStart=/usr/libexec/vantorix/vantorix-smartctl-helper\n"), std::string::npos) << units;
    EXPECT_NE(units.find("\nExecStart=/usr/bin/vantorix-cli serve"), std::string::npos) << units;
    // The fleet files: the rules as installed load, beside the dashboard.
    EXPECT_TRUE(fs::exists("/usr/share/vantorix/grafana/vantorix.json"));
    EXPECT_EQ(runProcess({"/usr/bin/promtool", "check", "rules", "/usr/share/vantorix/prometheus/vantorix-rules.yml"})
                  .exitStatus,
              0);

    if (const testing::VirtualDisplay x; !x.display.empty()) {
        auto app = testing::RunningProcess::start({"/usr/bin/vantorix"},
                                                  {{"DISPLAY", x.display}, {"QT_QPA_PLATFORM", "xcb"}});
        EXPECT_EQ(app->readLine(30s), "[Vantorix] App launched and root window created.") << app->standardError();
        app->signal(SIGTERM);
        EXPECT_EQ(app->waitForExit(10s).value_or(-1), 0);
    } else {
        ADD_FAILURE() << x.error;
    }

    const auto purged = runProcess({"/usr/bin/dpkg", "--purge", "vantorix"});
    EXPECT_EQ(purged.exitStatus, 0) << purged.out << purged.err;
    std::vector<std::string> left;
    for (const auto& file : files)
        if (fs::is_regular_file(file) || fs::is_symlink(file)) left.push_back(file);
    EXPECT_TRUE(left.empty()) << left.front();
    EXPECT_GT(files.size(), 10u);
    EXPECT_NE(runProcess({"/usr/bin/pgrep", "-f", "^/usr/(bin/vantorix|libexec/vantorix/)"}).exitStatus, 0);
}

}  // namespace
}  // namespace vantorix
