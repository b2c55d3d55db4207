#pragma once

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>

#include "support/Process.h"

namespace vantorix::testing {

// An X server of the test's own (Xvfb) on a display number no other test of this run takes; stopped
// with the object. `display` is empty when it could not be started (`error` says why).
struct VirtualDisplay {
    VirtualDisplay() {
        if (::access("/usr/bin/Xvfb", X_OK) != 0) {
            error = "no Xvfb (package xvfb)";
            return;
        }
        const std::string name = ":" + std::to_string(90 + ::getpid() % 500);
        server_ = RunningProcess::start({"/usr/bin/Xvfb", name, "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
        if (eventually([&] { return std::filesystem::exists("/tmp/.X11-unix/X" + name.substr(1)); })) display = name;
        else error = "Xvfb did not start: " + server_->standardError();
    }
    ~VirtualDisplay() {
        if (!server_) return;
        server_->signal(SIGTERM);
        server_->waitForExit(std::chrono::seconds(10));
    }
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    std::string display, error;

private:
    std::unique_ptr<RunningProcess> server_;
};

}  // namespace vantorix::testing
