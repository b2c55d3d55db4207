#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <filesystem>
#include <string>
#include <thread>

#include "support/HelperDaemon.h"
#include "support/Process.h"
#include "support/VirtualDisplay.h"
#include "support/SmartctlStandIn.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Asks the shown top-level window titled `title` on `display` to close, as a window manager does when
// its close button is pressed (WM_DELETE_WINDOW). False when there is no such window.
bool closeWindow(const std::string& display, const std::string& title) {
    xcb_connection_t* connection = xcb_connect(display.c_str(), nullptr);
    if (xcb_connection_has_error(connection) != 0) {
        xcb_disconnect(connection);
        return false;
    }
    const auto atom = [&](const char* name) {
        xcb_intern_atom_reply_t* reply =
            xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
        xcb_atom_t value = XCB_ATOM_NONE;
        if (reply != nullptr) value = reply->atom;
        std::free(reply);
        return value;
    };
    const xcb_atom_t protocols = atom("WM_PROTOCOLS");
    const xcb_atom_t deleteWindow = atom("WM_DELETE_WINDOW");
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    bool sent = false;
    xcb_query_tree_reply_t* tree = xcb_query_tree_reply(connection, xcb_query_tree(connection, root), nullptr);
    if (tree != nullptr) {
        const xcb_window_t* children = xcb_query_tree_children(tree);
        for (int i = 0; i < xcb_query_tree_children_length(tree) && !sent; ++i) {
            xcb_get_property_reply_t* name = xcb_get_property_reply(
                connection, xcb_get_property(connection, 0, children[i], XCB_ATOM_WM_NAME, XCB_ATOM_ANY, 0, 256), nullptr);
            // Only a shown window: Qt gives hidden helper windows (popups, tooltips) the same name.
            xcb_get_window_attributes_reply_t* attributes =
                xcb_get_window_attributes_reply(connection, xcb_get_window_attributes(connection, children[i]), nullptr);
            const bool shown = attributes != nullptr && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
            std::free(attributes);
            if (shown && name != nullptr &&
                std::string(static_cast<const char*>(xcb_get_property_value(name)),
                            static_cast<std::size_t>(xcb_get_property_value_length(name))) == title) {
                xcb_client_message_event_t event = {};
                event.response_type = XCB_CLIENT_MESSAGE;
                event.format = 32;
                event.window = children[i];
                event.type = protocols;
                event.data.data32[0] = deleteWindow;
                event.data.data32[1] = XCB_CURRENT_TIME;
                xcb_send_event(connection, 0, children[i], XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&event));
                xcb_flush(connection);
                sent = true;
            }
            std::free(name);
        }
        std::free(tree);
    }
    xcb_disconnect(connection);
    return sent;
}

// The real program on a real X server (Xvfb): it opens its window, says so, and ends within a
// second or two however it is asked to: SIGTERM, SIGINT, or its window's close button. It is
// monitoring at 1 ms meanwhile, and its SMART request hangs in a helper whose smartctl never
// answers.
TEST(DesktopSmoke, StartsUnderXvfbAndEndsPromptlyOnSignalsAndOnClose) {
    const testing::VirtualDisplay x;
    if (x.display.empty()) GTEST_SKIP() << x.error;
    const std::string& display = x.display;
    auto smartctl = testing::SmartctlStandIn::create({testing::StandInBehaviour::Mode::hang, "", "", 0});
    std::string error;
    auto helper = testing::HelperDaemon::start({smartctl->path(), {}}, &error);
    ASSERT_NE(helper, nullptr) << error;

    for (const std::string way : {"SIGTERM", "SIGINT", "close"}) {
        SCOPED_TRACE(way);
        auto app = testing::RunningProcess::start({VANTORIX_APP_PATH, "--precision", "1", "--monitor", "/"},
                                                  {{"DISPLAY", display}, {"QT_QPA_PLATFORM", "xcb"},
                                                   {"VANTORIX_HELPER_SOCKET", helper->socketPath()}});
        const auto line = app->readLine(30s);
        ASSERT_TRUE(line.has_value()) << app->standardError();
        EXPECT_EQ(*line, "[Vantorix] App launched and root window created.");
        // Until the SMART request reaches the stand-in, which then hangs.
        for (int i = 0; i < 500 && smartctl->starts().empty(); ++i) std::this_thread::sleep_for(10ms);
        EXPECT_FALSE(smartctl->starts().empty());

        auto asked = Clock::now();
        std::optional<int> status;
        if (way == "close") {
            // Until the window is shown and Qt listens for the request, it may pass unheard:
            // asked again every 100 ms, the time counts from the first request it could hear.
            bool heard = false;
            for (int i = 0; i < 100 && !status; ++i) {
                if (closeWindow(display, "Vantorix") && !heard) {
                    heard = true;
                    asked = Clock::now();
                }
                status = app->waitForExit(100ms);
            }
            ASSERT_TRUE(heard);
        } else {
            app->signal(way == "SIGTERM" ? SIGTERM : SIGINT);
        }
        if (!status) status = app->waitForExit(10s);
        ASSERT_TRUE(status.has_value());
        EXPECT_EQ(*status, 0) << app->standardError();
        EXPECT_LT(Clock::now() - asked, 2s);
    }
}

}  // namespace
}  // namespace vantorix
