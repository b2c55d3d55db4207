#pragma once

#include <atomic>

#include "support/TemporaryFolder.h"

namespace vantorix::testing {

// Holds server handlers until opened; opened at the latest when it goes, so that a failing test
// never leaves a handler blocked. Declare it after the server it serves.
class Gate {
public:
    ~Gate() { open(); }
    void open() {
        open_ = true;
        open_.notify_all();
    }
    void wait() { open_.wait(false); }

private:
    std::atomic<bool> open_{false};
};

}  // namespace vantorix::testing
