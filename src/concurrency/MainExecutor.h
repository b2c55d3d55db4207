#pragma once

#include <functional>

namespace vantorix {

// The main thread, where all published state lives. Work posted from any thread runs there
// later, one item at a time, in the order posted. The desktop app posts through its event loop,
// the command-line tool runs a LoopMainExecutor, tests drain a manual executor of their own.
class MainExecutor {
public:
    virtual ~MainExecutor() = default;

    // Enqueues `work` to run on the main thread and returns at once, even on the main thread.
    // Safe from any thread. An empty function is ignored.
    virtual void post(std::function<void()> work) = 0;

    // True on the main thread.
    virtual bool isMainThread() const = 0;

protected:
    MainExecutor() = default;
    MainExecutor(const MainExecutor&) = default;
    MainExecutor& operator=(const MainExecutor&) = default;
};

}  // namespace vantorix
