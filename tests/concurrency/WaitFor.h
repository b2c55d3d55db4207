#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace vantorix::testing {

// Polls `condition` until it holds or `timeout` passes. The timeouts in these tests only keep a
// broken build from hanging; no assertion depends on how fast the machine is.
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::steady_clock::duration timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

}  // namespace vantorix::testing
