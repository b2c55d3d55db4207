#pragma once

#include "concurrency/ThreadAttributes.h"

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

namespace asio {
class io_context;
}

namespace vantorix {

// A serial work queue: one thread of its own runs the queue's work items one at a time, in the
// order in which they were enqueued (items enqueued from one thread keep that thread's order).
// The thread is named after the label's last component and runs at the nice value of the quality
// of service. The queue is an Asio io_context, so Asio timers and I/O objects made on context()
// complete on the queue's thread, serialised with its work items.
//
// The repeating timers of a queue wait on a descriptor set of the queue's own, registered once
// per timer (an Asio wait re-arms its descriptor on every wake-up): while a timer is armed and no
// work is queued, the thread blocks there, and work enqueued through async() or sync() wakes it.
// Asio I/O objects are not in that set, so once context() has been asked for, the timers wait
// through Asio instead.
//
// An exception that escapes a work item is logged (category "Concurrency") and the queue carries
// on with the next item.
class SerialQueue {
public:
    SerialQueue(std::string label, QualityOfService qos);

    // Finishes the work that is already enqueued, together with whatever that work enqueues and
    // every Asio operation still outstanding on context() (cancel or destroy the queue's timers
    // first), then joins the thread. When the last owner lets go of the queue on the queue's own
    // thread (a weakly held owner released inside a work item), the destructor cannot join; the
    // thread then finishes the remaining work on its own and exits.
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const noexcept;
    QualityOfService qualityOfService() const noexcept;

    // Enqueues `work` and returns at once. Safe from any thread.
    void async(std::function<void()> work);

    // Runs `work` on the queue and returns its result once it has run; an exception it throws is
    // rethrown here. Called on the queue itself it runs inline, so it never waits for itself. Two
    // queues that wait synchronously for each other deadlock; so does a queue that waits for a
    // thread that is waiting for it.
    template <class F>
    std::invoke_result_t<F&> sync(F&& work) {
        using R = std::invoke_result_t<F&>;
        if (isCurrent()) return std::invoke(work);
        std::packaged_task<R()> task([&work]() -> R { return std::invoke(work); });
        std::future<R> result = task.get_future();
        enqueue([&task] { task(); });
        return result.get();
    }

    // True when called from a work item (or timer handler) of this queue.
    bool isCurrent() const noexcept;

    // The queue's io_context, for Asio timers and I/O objects that complete on the queue. Asio
    // objects are not thread-safe: use them from the queue's work only. Do not run, stop or
    // restart the context; the queue does that. Post work through async(), not to the context.
    asio::io_context& context() const noexcept;

private:
    struct Core;
    friend class RepeatingTimer;

    // Calls `onReadable` on the queue whenever `descriptor` becomes readable, until unwatch().
    // Edge-triggered: the callback must consume everything that made it readable (a timerfd's
    // single read does). Queue only; the descriptor stays the caller's and must stay open until
    // unwatch().
    void watch(int descriptor, std::function<void()> onReadable);
    void unwatch(int descriptor);

    // Enqueues `work` as it is: exceptions are the caller's business.
    void enqueue(std::function<void()> work);

    std::shared_ptr<Core> core_;
    std::thread thread_;
};

}  // namespace vantorix
