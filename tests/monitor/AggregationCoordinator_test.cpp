#include "monitor/AggregationCoordinator.h"

#include "concurrency/SerialQueue.h"
#include "concurrency/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using testing::waitFor;
using Payload = AggregationCoordinator::Payload;
using Numbers = std::vector<std::uint64_t>;

// Sample number n (kept in readOperations).
DiskSample sample(std::uint64_t n, std::uint64_t readBytes, std::uint64_t writeBytes) {
    return DiskSample{Uuid::make(), std::chrono::system_clock::now(), readBytes, writeBytes, n, 2 * n};
}
DiskSample sample(std::uint64_t n) { return sample(n, n * 4096, n * 512 + 7); }

void enqueue(AggregationCoordinator& coordinator, const DiskSample& s) {
    coordinator.enqueue(s, s.readBytes, s.writeBytes);
}

// Checks each payload as it arrives: on the coordinator's queue, not empty, sums and latest sample right.
struct Recorder {
    std::atomic<const SerialQueue*> queue{nullptr};
    std::mutex mutex;
    std::vector<Payload> payloads;
    std::size_t bad = 0;

    void record(Payload payload) {
        std::uint64_t reads = 0;
        std::uint64_t writes = 0;
        for (const auto& s : payload.samples) {
            reads += s.readBytes;
            writes += s.writeBytes;
        }
        const bool good = queue.load()->isCurrent() && !payload.samples.empty() && payload.readBytes == reads &&
                          payload.writeBytes == writes && payload.latestSample == payload.samples.back();
        std::lock_guard lock(mutex);
        bad += good ? 0 : 1;
        payloads.push_back(std::move(payload));
    }
    // The sample numbers of each payload; with `bad` payloads, an extra batch {0} at the end.
    std::vector<Numbers> batches() {
        std::lock_guard lock(mutex);
        std::vector<Numbers> out;
        for (const auto& payload : payloads) {
            out.emplace_back();
            for (const auto& s : payload.samples) out.back().push_back(s.readOperations);
        }
        if (bad > 0) out.push_back({0});
        return out;
    }
};

std::shared_ptr<AggregationCoordinator> makeCoordinator(Recorder& recorder, std::chrono::nanoseconds interval) {
    auto coordinator =
        AggregationCoordinator::create(interval, 0ms, [&recorder](Payload p) { recorder.record(std::move(p)); });
    recorder.queue = &coordinator->queue();
    return coordinator;
}

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
        const auto coordinator = makeCoordinator(recorder, 1h);
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
        EXPECT_EQ(recorder.batches(), c.delivered) << c.name;
    }
}

TEST(AggregationCoordinator, SumsWrapAround) {
    constexpr std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
    constexpr std::uint64_t half = std::uint64_t{1} << 63;
    Recorder recorder;
    const auto coordinator = makeCoordinator(recorder, 1h);
    enqueue(*coordinator, sample(1, max, half));
    enqueue(*coordinator, sample(2, 2, half));
    enqueue(*coordinator, sample(3, max - 1, 5));
    coordinator->flush();
    ASSERT_EQ(recorder.batches(), (std::vector<Numbers>{{1, 2, 3}}));
    EXPECT_EQ(recorder.payloads[0].readBytes, max);  // max + 2 + (max - 1)
    EXPECT_EQ(recorder.payloads[0].writeBytes, 5U);  // half + half + 5
}

// In order, in several non-empty batches; nothing after stop; after reset and start only what came after.
TEST(AggregationCoordinator, DeliversOnItsTimer) {
    Recorder recorder;
    const auto coordinator = makeCoordinator(recorder, 2ms);
    coordinator->reset();
    coordinator->start();
    std::this_thread::sleep_for(20ms);
    for (std::uint64_t n = 1; n <= 300; ++n) {
        enqueue(*coordinator, sample(n));
        std::this_thread::sleep_for(200us);
    }
    Numbers expected(300);
    std::iota(expected.begin(), expected.end(), std::uint64_t{1});
    Numbers all;
    ASSERT_TRUE(waitFor([&] {
        all.clear();
        for (const auto& batch : recorder.batches()) all.insert(all.end(), batch.begin(), batch.end());
        return all.size() >= expected.size();
    }));
    EXPECT_EQ(all, expected);
    EXPECT_GT(recorder.batches().size(), 1U);

    coordinator->stop(true);
    const std::size_t afterStop = recorder.batches().size();
    enqueue(*coordinator, sample(1000));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(recorder.batches().size(), afterStop);  // the timer is gone; 1000 waits for a reset

    coordinator->reset();
    coordinator->start();
    enqueue(*coordinator, sample(1001));
    ASSERT_TRUE(waitFor([&] { return recorder.batches().size() > afterStop; }));
    EXPECT_EQ(recorder.batches().back(), Numbers{1001});
}

// Dropped while its timer runs and samples are on their way: nothing keeps it alive.
TEST(AggregationCoordinator, CanBeDroppedWhileRunning) {
    // The handler owns what it writes to: its queue may still finish a delivery after the
    // coordinator is gone.
    auto recorder = std::make_shared<Recorder>();
    auto coordinator = AggregationCoordinator::create(1ms, 0ms, [recorder](Payload p) { recorder->record(std::move(p)); });
    recorder->queue = &coordinator->queue();
    const std::weak_ptr<AggregationCoordinator> weak = coordinator;
    coordinator->start();
    for (std::uint64_t n = 1; n <= 200; ++n) enqueue(*coordinator, sample(n));
    coordinator.reset();
    EXPECT_TRUE(waitFor([&] { return weak.expired(); }));
}

}  // namespace
}  // namespace vantorix
