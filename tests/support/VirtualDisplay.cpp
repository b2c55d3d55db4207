#include "support/VirtualDisplay.h"

#include <csignal>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace vantorix::testing {

VirtualDisplay::VirtualDisplay() {
    if (::access("/usr/bin/Xvfb", X_OK) != 0) {
        error = "no Xvfb (package xvfb)";
        return;
    }
    const std::string name = ":" + std::to_string(90 + ::getpid() % 500);
    server_ = RunningProcess::start({"/usr/bin/Xvfb", name, "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
    const auto socket = "/tmp/.X11-unix/X" + name.substr(1);
    for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (std::filesystem::exists(socket)) display = name;
    else error = "Xvfb did not start: " + server_->standardError();
}

VirtualDisplay::~VirtualDisplay() {
    if (!server_) return;
    server_->signal(SIGTERM);
    server_->waitForExit(std::chrono::seconds(10));
}

}  // namespace vantorix::testing
