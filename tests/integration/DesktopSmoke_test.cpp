#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "support/HelperDaemon.h"
#include "support/Process.h"
#include "support/VirtualDisplay.h"
#include "support/SmartctlStandIn.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;

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
                connection, xcb_get_property(connection, 0, windows[i], XCB_ATOM_WM_NAME, XCB_ATOM_ANY, 0, 256), nullptr));
            // Only a shown window: Qt gives hidden helper windows (popups, tooltips) the same name.
            const auto attributes =
                owned(xcb_get_window_attributes_reply(connection, xcb_get_window_attributes(connection, windows[i]), nullptr));
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
    std::string error;
    auto helper = testing::HelperDaemon::start({smartctl->path(), {}}, &error);
    ASSERT_NE(helper, nullptr) << error;

    for (const std::string way : {"SIGTERM", "SIGINT", "close"}) {
        SCOPED_TRACE(way);
        auto app = testing::RunningProcess::start({VANTORIX_APP_PATH, "--precision", "1", "--monitor", "/"},
                                                  {{"DISPLAY", x.display}, {"QT_QPA_PLATFORM", "xcb"},
                                                   {"VANTORIX_HELPER_SOCKET", helper->socketPath()}, {"VANTORIX_LOG", "error"}});
        const auto line = app->readLine(30s);
        ASSERT_TRUE(line.has_value()) << app->standardError();
        EXPECT_EQ(*line, "[Vantorix] App launched and root window created.");
        // Until the SMART request reaches the stand-in, which then hangs.
        for (int i = 0; i < 1000 && smartctl->starts().empty(); ++i) std::this_thread::sleep_for(10ms);
        ASSERT_FALSE(smartctl->starts().empty());
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

}  // namespace
}  // namespace vantorix
