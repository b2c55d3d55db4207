#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>

namespace vantorix::detail {

// The queue behind the main executors: a thread-safe FIFO of work items that the main thread
// takes out one at a time, waiting for the next one when it must.
class PendingWork {
public:
    using Clock = std::chrono::steady_clock;

    // Appends an item; an empty function is a marker that take() hands out like any item.
    void push(std::function<void()> item);

    // The oldest item, waiting until `deadline` (without one, as long as it takes) for one to
    // arrive; nothing when none came in time.
    std::optional<std::function<void()>> take(std::optional<Clock::time_point> deadline);
    // The oldest item, without waiting.
    std::optional<std::function<void()>> tryTake();

    std::size_t size() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::function<void()>> items_;
};

// Runs one work item on the main thread of an event loop that must keep going (the desktop app's,
// a test's): an exception it throws is logged and swallowed.
void runMainWork(const std::function<void()>& item);

}  // namespace vantorix::detail
