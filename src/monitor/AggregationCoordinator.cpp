#include "monitor/AggregationCoordinator.h"

#include "concurrency/RepeatingTimer.h"
#include "concurrency/WeakOwner.h"

#include <utility>

namespace vantorix {

std::shared_ptr<AggregationCoordinator> AggregationCoordinator::create(std::chrono::nanoseconds interval,
                                                                       std::chrono::nanoseconds leeway,
                                                                       Handler handler) {
    return std::shared_ptr<AggregationCoordinator>(new AggregationCoordinator(interval, leeway, std::move(handler)));
}

AggregationCoordinator::AggregationCoordinator(std::chrono::nanoseconds interval, std::chrono::nanoseconds leeway,
                                               Handler handler)
    : queue_(queueLabel, QualityOfService::utility),
      interval_(interval),
      leeway_(leeway),
      handler_(std::make_shared<const Handler>(std::move(handler))) {}

// Nothing of the coordinator runs any more: queued work and timer ticks hold it weakly. The timer
// (cancelled by its destructor) goes before the queue, which then finishes and joins.
AggregationCoordinator::~AggregationCoordinator() = default;

void AggregationCoordinator::setHandler(Handler handler) {
    auto replacement = std::make_shared<const Handler>(std::move(handler));
    queue_.sync([&] { handler_.swap(replacement); });
}

void AggregationCoordinator::enqueue(DiskSample sample, std::uint64_t readBytes, std::uint64_t writeBytes) {
    // Taken straight into the pending list under its lock, which is only ever held for a push or
    // a swap: the sampling thread never waits for a delivery, and the coordinator's thread is not
    // woken a thousand times a second just to append.
    std::lock_guard lock(pendingMutex_);
    pendingSamples_.push_back(sample);
    pendingReadBytes_ += readBytes;  // unsigned: wraps modulo 2^64
    pendingWriteBytes_ += writeBytes;
    pendingLoad_ += sample.load;
    pendingLatestSample_ = pendingSamples_.back();
}

void AggregationCoordinator::reset() {
    queue_.sync([this] { clearPending(); });
}

void AggregationCoordinator::start() {
    queue_.sync([this] { startNow(); });
}

void AggregationCoordinator::stop(bool flushPending) {
    queue_.sync([this, flushPending] {
        // On the queue no tick can run between the two steps, so stopping the timer before the
        // delivery is the same as after it, and keeps the timer stopped if the handler throws.
        stopTimer();
        if (flushPending) flushNow();
    });
}

void AggregationCoordinator::flush() {
    queue_.sync([this] { flushNow(); });
}

void AggregationCoordinator::clearPending() noexcept {
    std::lock_guard lock(pendingMutex_);
    pendingSamples_.clear();  // keeps the capacity
    pendingReadBytes_ = 0;
    pendingWriteBytes_ = 0;
    pendingLoad_ = {};
    pendingLatestSample_.reset();
}

void AggregationCoordinator::startNow() {
    stopTimer();
    auto timer = std::make_unique<RepeatingTimer>(queue_);
    timer->setHandler(weakly(this, [](AggregationCoordinator& self) { self.flushNow(); }));
    timer->schedule(std::chrono::duration_cast<RepeatingTimer::Duration>(interval_),
                    std::chrono::duration_cast<RepeatingTimer::Duration>(interval_),
                    std::chrono::duration_cast<RepeatingTimer::Duration>(leeway_));
    timer->resume();
    timer_ = std::move(timer);
}

void AggregationCoordinator::stopTimer() {
    if (!timer_) return;
    timer_->setHandler({});
    timer_->cancel();
    timer_.reset();
}

void AggregationCoordinator::flushNow() {
    Payload payload;
    {
        std::lock_guard lock(pendingMutex_);
        if (pendingSamples_.empty()) return;
        payload = Payload{std::vector<DiskSample>(pendingSamples_.begin(), pendingSamples_.end()), pendingReadBytes_,
                          pendingWriteBytes_, pendingLoad_, pendingLatestSample_};
        pendingSamples_.clear();
        pendingReadBytes_ = 0;
        pendingWriteBytes_ = 0;
        pendingLoad_ = {};
        pendingLatestSample_.reset();
    }
    const std::shared_ptr<const Handler> handler = handler_;
    if (*handler) (*handler)(std::move(payload));
}

}  // namespace vantorix
