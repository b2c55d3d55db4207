#include "monitor/AggregationCoordinator.h"

#include "concurrency/SerialQueue.h"
#include "concurrency/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;
using Payload = AggregationCoordinator::Payload;
using Numbers = std::vector<std::uint64_t>;

// Sample number n (kept in readOperations), with byte counts large enough that any two make a
// sum past 2^64.
DiskSample sample(std::uint64_t n) {
    constexpr std::uint64_t big = std::numeric_limits<std::uint64_t>::max() / 2 + 3;
    return DiskSample{Uuid::make(), std::chrono::system_clock::now(), big * n, big + n, n, 2 * n};
}

void enqueue(AggregationCoordinator& coordinator, const DiskSample& s) {
    coordinator.enqueue(s, s.readBytes, s.writeBytes);
}

// Checks each payload as it arrives: on the coordinator's queue, not empty, sums (modulo 2^64) and
// latest sample right.
struct Recorder {
    const SerialQueue* queue = nullptr;
    std::vector<Numbers> batches;  // the sample numbers of each payload; {0} for one that was wrong

    void record(const Payload& payload) {
        std::uint64_t reads = 0, writes = 0;
        Numbers numbers;
        for (const auto& s : payload.samples) {
            reads += s.readBytes;
            writes += s.writeBytes;
            numbers.push_back(s.readOperations);
        }
        const bool good = queue->isCurrent() && !numbers.empty() && payload.readBytes == reads &&
                          payload.writeBytes == writes && payload.latestSample == payload.samples.back();
        batches.push_back(good ? numbers : Numbers{0});
    }
};

// The timer never fires (an hour's interval); enqueue is asynchronous, so each call must also
// see the samples enqueued before it.
TEST(AggregationCoordinator, DeliversWhatIsPendingWhenAskedTo) {
    enum Op : std::uint64_t { flush = 1000, stopFlushing, stopDiscarding, reset, start };  // others: enqueue n
    struct Case {
        const char* name;
        std::vector<std::uint64_t> steps;
        std::vector<Numbers> delivered;
    };
    const Case cases[] = {
        {"one period in arrival order", {1, 2, 3, flush}, {{1, 2, 3}}},
        {"empty periods deliver nothing", {flush, 1, flush, flush}, {{1}}},
        {"periods do not mix", {1, 2, flush, 3, flush}, {{1, 2}, {3}}},
        {"starting delivers nothing", {1, start, start}, {}},
        {"stop(true) delivers once", {start, 1, 2, stopFlushing, stopFlushing, flush}, {{1, 2}}},
        {"stop(false) delivers nothing", {start, 1, 2, stopDiscarding}, {}},
        {"stop(false) keeps pending until reset", {start, 1, stopDiscarding, flush}, {{1}}},
        {"reset drops pending", {1, 2, reset, 3, flush}, {{3}}},
        {"samples after a stop wait for the next reset", {start, 1, stopFlushing, 2, reset, start, 3, stopFlushing},
         {{1}, {3}}},
    };
    for (const Case& c : cases) {
        Recorder recorder;
        const auto coordinator =
            AggregationCoordinator::create(1h, 0ms, [&recorder](Payload p) { recorder.record(p); });
        recorder.queue = &coordinator->queue();
        for (const std::uint64_t step : c.steps) {
            switch (step) {
                case flush: coordinator->flush(); break;
                case stopFlushing: coordinator->stop(true); break;
                case stopDiscarding: coordinator->stop(false); break;
                case reset: coordinator->reset(); break;
                case start: coordinator->start(); break;
                default: enqueue(*coordinator, sample(step));
            }
        }
        coordinator->queue().sync([] {});
        EXPECT_EQ(recorder.batches, c.delivered) << c.name;
    }
}

// Dropped while its timer runs and samples are on their way: nothing keeps it alive.
TEST(AggregationCoordinator, CanBeDroppedWhileRunning) {
    // The handler owns what it writes to: its queue may still finish a delivery after the
    // coordinator is gone.
    auto delivered = std::make_shared<std::atomic<int>>(0);
    auto coordinator = AggregationCoordinator::create(1ms, 0ms, [delivered](Payload) { ++*delivered; });
    const std::weak_ptr<AggregationCoordinator> weak = coordinator;
    coordinator->start();
    for (std::uint64_t n = 1; n <= 200; ++n) enqueue(*coordinator, sample(n));
    coordinator.reset();
    EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

}  // namespace
}  // namespace vantorix
