#pragma once

#include "concurrency/SerialQueue.h"
#include "monitor/DiskSample.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace vantorix {

class RepeatingTimer;

// Collects the monitor's samples on a queue of its own and hands them on in one batch per
// delivery period, so that whoever receives the batches (the main thread, through the monitor)
// sees at most one update per period however fast the samples come, and none while none come.
//
// The coordinator's timer and handler live on queue(). enqueue() adds to the pending list at
// once, under a lock held only for the append (the sampling thread never waits for a delivery and
// wakes no thread); every other member function runs its work synchronously on the queue (inline
// when called on it), so when it returns, everything enqueued before the call has been applied.
// They may be called from any thread except from work that the queue itself is waiting for.
//
// The handler runs on queue(). It must not wait for a thread that may be waiting synchronously on
// the coordinator (the main thread in stop(), for instance): forward the batch asynchronously.
//
// Always owned by a shared_ptr (create()): the queued work and the timer hold it weakly, and do
// nothing once it is gone. Destroying it stops the timer and lets the queue finish.
class AggregationCoordinator : public std::enable_shared_from_this<AggregationCoordinator> {
public:
    // One batch: the samples of one period, oldest first, with the sums of their byte deltas
    // (modulo 2^64) and the newest of them.
    struct Payload {
        std::vector<DiskSample> samples;
        std::uint64_t readBytes = 0;
        std::uint64_t writeBytes = 0;
        LoadCounters load;  // the samples' request counters, summed
        std::optional<DiskSample> latestSample;

        friend bool operator==(const Payload&, const Payload&) = default;
    };
    using Handler = std::function<void(Payload)>;

    static constexpr const char* queueLabel = "com.vantorix.monitor.aggregation";

    // A coordinator delivering every `interval` once started, with `leeway` for its timer. With no
    // handler, batches are dropped.
    static std::shared_ptr<AggregationCoordinator> create(std::chrono::nanoseconds interval,
                                                          std::chrono::nanoseconds leeway, Handler handler = {});

    ~AggregationCoordinator();
    AggregationCoordinator(const AggregationCoordinator&) = delete;
    AggregationCoordinator& operator=(const AggregationCoordinator&) = delete;

    // Replaces the handler; batches delivered after this returns go to the new one.
    void setHandler(Handler handler);

    // Adds one sample with its byte deltas to the pending list. Safe from any thread.
    void enqueue(DiskSample sample, std::uint64_t readBytes, std::uint64_t writeBytes);

    // Drops everything pending. Does not touch the timer.
    void reset();

    // (Re)starts the delivery timer: the first delivery is due one interval from now, then one
    // every interval. A timer that was running is stopped first.
    void start();

    // With `flushPending`, delivers what is pending; then stops the timer. Without it, pending
    // samples stay until the next reset() (or an explicit flush()), as do samples enqueued after
    // the stop.
    void stop(bool flushPending);

    // Delivers what is pending as one Payload; does nothing, and calls no handler, when nothing is.
    void flush();

    SerialQueue& queue() noexcept { return queue_; }
    std::chrono::nanoseconds interval() const noexcept { return interval_; }
    std::chrono::nanoseconds leeway() const noexcept { return leeway_; }

private:
    AggregationCoordinator(std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway, Handler handler);

    // Queue only.
    void clearPending() noexcept;
    void startNow();
    void stopTimer();
    void flushNow();

    // Declared first so that it goes last: the timer and the state below die before the queue.
    SerialQueue queue_;
    const std::chrono::nanoseconds interval_;
    const std::chrono::nanoseconds leeway_;

    // Queue only. The handler is shared so that a handler replacing itself while it runs stays
    // alive until its call ends.
    std::shared_ptr<const Handler> handler_;
    std::unique_ptr<RepeatingTimer> timer_;
    // The pending samples, guarded by pendingMutex_ (enqueue() runs on the sampling thread).
    // Keeps its capacity from period to period: once warmed up, enqueueing allocates nothing. A
    // batch is copied out of it into a vector of exactly the batch's size, the one allocation per
    // delivered period (the payload travels on to its receiver and does not come back).
    std::mutex pendingMutex_;
    std::vector<DiskSample> pendingSamples_;
    std::uint64_t pendingReadBytes_ = 0;
    std::uint64_t pendingWriteBytes_ = 0;
    LoadCounters pendingLoad_;
    std::optional<DiskSample> pendingLatestSample_;
};

}  // namespace vantorix
