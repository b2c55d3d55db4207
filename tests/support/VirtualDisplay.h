#pragma once

#include <memory>
#include <string>

#include "support/Process.h"

namespace vantorix::testing {

// An X server of the test's own (Xvfb) on a display number no other test of this run takes; stopped
// with the object. `display` is empty when it could not be started (`error` says why).
struct VirtualDisplay {
    VirtualDisplay();
    ~VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    std::string display;
    std::string error;

private:
    std::unique_ptr<RunningProcess> server_;
};

}  // namespace vantorix::testing
