#include "concurrency/SerialQueue.h"
#include "log/Log.h"
#include "monitor/AggregationCoordinator.h"
#include "monitor/DiskIOMonitor.h"
#include "monitor/FixedRingBuffer.h"
#include "monitor/MonitorMetrics.h"
#include "monitor/SmartRefresh.h"
#include "monitor/StatisticsSession.h"
#include "support/FakeVolumes.h"
#include "support/ManualMainExecutor.h"
#include "support/ScriptedBlockDevices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using Precision = DiskIOMonitor::SamplingPrecision;
using State = DiskIOMonitor::State;
using Payload = AggregationCoordinator::Payload;
using Numbers = std::vector<std::uint64_t>;
using ::testing::ElementsAreArray;
using Round = SmartRefresh::Round;
using Outcome = SMARTInfoProvider::Outcome;
using Clock = std::chrono::steady_clock;

// Counters that move by a fixed number of sectors every time they are read, so every sample's
// deltas are known exactly whatever the timing.
struct SteppingCounters {
    std::uint64_t step = 8;
    std::atomic<std::uint64_t> value{1'000'000'000'000};
    std::atomic<std::uint64_t> reads{0};
};

class DiskIOMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"fake0", "fake1"}) {
            devices_->add(name, [c = counters_] {
                ++c->reads;
                const std::uint64_t sectors = c->value.fetch_add(c->step);
                return BlockStatistics{.sectorsRead = 2 * sectors, .sectorsWritten = sectors};
            });
        }
        monitor_ = DiskIOMonitor::create({devices_, std::make_shared<AnyPathOnFakeDisk>(), main_});
    }
    void TearDown() override {
        if (monitor_) monitor_->stopMonitoring(false);
        main_->drain();
    }
    const State& state() const { return monitor_->state(); }
    bool runUntil(const std::function<bool()>& done) { return main_->runUntil(done, 20s); }
    void select(const std::string& path) {
        monitor_->selectVolume(path);
        const auto& volume = monitor_->state().selectedVolume;
        ASSERT_TRUE(runUntil([&] { return volume && path.ends_with(volume->deviceName); })) << path;
    }
    void selectAndStart(Precision precision) {
        monitor_->setSamplingPrecision(precision);
        select("/volumes/fake0");
        monitor_->startMonitoring();
    }
    // Every sample is one step of the counters with an id of its own, and the totals add up every
    // sample (modulo 2^64).
    void expectSteps(std::uint64_t step = 4096) const {
        const State& s = state();
        std::set<Uuid> ids;
        for (const auto& sample : s.samples) {
            EXPECT_EQ(sample.writeBytes, step);
            EXPECT_EQ(sample.readBytes, 2 * step);
            ids.insert(sample.id);
        }
        EXPECT_EQ(ids.size(), s.samples.size());
        EXPECT_EQ(s.totalWriteBytes, step * s.samples.size());
        EXPECT_EQ(s.totalReadBytes, 2 * step * s.samples.size());
    }

    std::shared_ptr<testing::ScriptedBlockDevices> devices_ = std::make_shared<testing::ScriptedBlockDevices>();
    std::shared_ptr<SteppingCounters> counters_ = std::make_shared<SteppingCounters>();
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<DiskIOMonitor> monitor_;
};

// Also for ThreadSanitizer: the precision changes while the timer runs.
TEST_F(DiskIOMonitorTest, SamplesAreTheCounterDeltasAcrossAPrecisionChangeAndARunEndsKeepingThem) {
    selectAndStart(Precision::ms10);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 20; }));
    monitor_->setSamplingPrecision(Precision::ms1);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 200; }));
    monitor_->stopMonitoring(true);
    ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
    main_->drain();

    const auto& s = state();
    expectSteps();
    EXPECT_EQ(s.currentWriteBytes, 4096u);
    // The baseline read when sampling begins gives no sample; a tick that was running at the stop
    // may have read once more without delivering.
    EXPECT_GE(counters_->reads, s.samples.size() + 1);
    EXPECT_LE(counters_->reads, s.samples.size() + 2);
    EXPECT_FALSE(s.monitoringStartDate);
    EXPECT_EQ(s.monitoringDuration, 0);

    // Starting again clears the history and the totals; selecting another volume stops the run.
    const auto before = s.samples.size();
    monitor_->startMonitoring();
    ASSERT_TRUE(runUntil([&] { return state().isMonitoring && state().samples.size() >= 3; }));
    EXPECT_LT(state().samples.size(), before);
    select("/volumes/fake1");
    main_->drain();
    EXPECT_FALSE(state().isMonitoring);
    EXPECT_GE(state().samples.size(), 3u);
    expectSteps();
}

// The delivery period is an hour: samples wait until they are asked for.
TEST_F(DiskIOMonitorTest, CountersGoingBackwardsGiveWrappedDeltasWhenTheSamplesAreAskedFor) {
    counters_->step = std::uint64_t(0) - 5;
    monitor_ = DiskIOMonitor::create({devices_, std::make_shared<AnyPathOnFakeDisk>(), main_, std::chrono::hours(1)});
    selectAndStart(Precision::ms1);
    ASSERT_TRUE(runUntil([&] { return state().isMonitoring && counters_->reads >= 100; }));
    main_->drain();
    EXPECT_TRUE(state().samples.empty());

    monitor_->deliverPendingSamples();
    main_->drain();
    // The baseline reads the counters without giving a sample, and a tick may be between its read
    // and its enqueue.
    EXPECT_GE(state().samples.size(), 98u);
    expectSteps((std::uint64_t(0) - 5u) * 512u);
}

TEST(MonitorMetrics, SpeedsAndRatesOverTheLastSecond) {
    struct Case {
        const char* name;
        Precision precision;
        std::size_t count;
        MonitorMetrics::Rates speeds, rates;
    };
    // Every sample: 1000 bytes read, 2000 written, 10 reads, 20 writes.
    const std::vector<Case> cases{
        {"none", Precision::ms10, 0, {0, 0}, {0, 0}},
        {"ms1000 takes the newest sample", Precision::ms1000, 5, {1000, 2000}, {10, 20}},
        {"ms100 sums the newest ten", Precision::ms100, 25, {10000, 20000}, {100, 200}},
        {"ms10 with three samples", Precision::ms10, 3, {3000, 6000}, {1000, 2000}},
        {"ms1 with a full second", Precision::ms1, 1500, {1'000'000, 2'000'000}, {10000, 20000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<DiskSample> samples(c.count, DiskSample{Uuid::make(), {}, 1000, 2000, 10, 20, {}});
        const auto speeds = MonitorMetrics::lastSecondSpeeds(samples, c.precision);
        const auto rates = MonitorMetrics::operationRates(samples, c.precision);
        EXPECT_EQ(speeds, c.speeds);
        EXPECT_NEAR(rates.read, c.rates.read, 1e-6 * c.rates.read);
        EXPECT_NEAR(rates.write, c.rates.write, 1e-6 * c.rates.write);
    }
}

// Sample number n (kept in readOperations), with byte counts large enough that any two make a
// sum past 2^64.
constexpr std::uint64_t kBig = std::numeric_limits<std::uint64_t>::max() / 2 + 3;
DiskSample sample(std::uint64_t n) {
    return DiskSample{Uuid::make(), std::chrono::system_clock::now(), kBig * n, kBig + n, n, 2 * n, {}};
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
        {"stop(true) delivers once", {start, 1, 2, stopFlushing, stopFlushing, flush}, {{1, 2}}},
        {"stop(false) delivers nothing", {start, 1, 2, stopDiscarding}, {}},
        {"reset drops pending", {1, 2, reset, 3, flush}, {{3}}},
        {"samples after a stop wait for the next reset",
         {start, 1, stopFlushing, 2, reset, start, 3, stopFlushing},
         {{1}, {3}}},
    };
    for (const Case& c : cases) {
        Recorder recorder;
        const auto coordinator = AggregationCoordinator::create(1h, 0ms,
                                                                [&recorder](Payload p) { recorder.record(p); });
        recorder.queue = &coordinator->queue();
        for (const std::uint64_t step : c.steps) {
            switch (step) {
                case flush: coordinator->flush(); break;
                case stopFlushing: coordinator->stop(true); break;
                case stopDiscarding: coordinator->stop(false); break;
                case reset: coordinator->reset(); break;
                case start: coordinator->start(); break;
                default: coordinator->enqueue(sample(step), step * kBig, kBig + step);
            }
        }
        coordinator->queue().sync([] {});
        EXPECT_EQ(recorder.batches, c.delivered) << c.name;
    }
}

// The stat file is opened once; a reading that fails opens it again once (a device that went away
// and came back under the same name answers again), and only a second failure ends the session.
TEST(StatisticsSession, ReadsOneKeptFileAndOpensItAgainOnceAfterAFailure) {
    auto devices = std::make_shared<testing::ScriptedBlockDevices>();
    std::uint64_t sectors = 0;
    devices->add("sdb", [&] { return BlockStatistics{.sectorsWritten = ++sectors}; });
    auto session = StatisticsSession::create(devices, "sdb");
    ASSERT_TRUE(session.ok());
    for (std::uint64_t i = 1; i <= 3; ++i) EXPECT_EQ(session.value()->snapshot()->bytesWritten(), i * 512);
    EXPECT_EQ(devices->opens("sdb"), 1);

    devices->remove("sdb");  // unplugged and plugged in again
    devices->add("sdb", [] { return BlockStatistics{.sectorsWritten = 7}; });
    EXPECT_EQ(session.value()->snapshot()->sectorsWritten, 7u);
    EXPECT_EQ(devices->opens("sdb"), 1);

    devices->remove("sdb");  // unplugged for good
    EXPECT_EQ(session.value()->snapshot().error(), MonitorError::statisticsUnavailable());
    devices->add("sdb", [] { return BlockStatistics{.sectorsWritten = 9}; });
    session.value()->end();
    EXPECT_EQ(session.value()->snapshot().error(), MonitorError::monitorStopped());
}

DiskSMARTInfo info(const std::string& status) {
    return DiskSMARTInfo{
        status, true, {DiskSMARTInfo::Detail{Uuid::make(), "smart_status.passed", "Passed", "Yes"}}, "smartctl"};
}
Outcome outcome(std::optional<DiskSMARTInfo> info, bool asleep = false) {
    return Outcome{std::move(info), asleep, {}, {}};
}

// What the test's fetch answers: one entry of the script per call (the last one repeats), after
// `delay` or when cancelled; and when each call started and ended.
struct ScriptedFetch {
    std::mutex mutex;
    std::vector<Outcome> script{Outcome{}};
    Clock::duration delay{0};
    std::vector<std::pair<Clock::time_point, Clock::time_point>> times;
    std::vector<std::string> lines;  // an error line each call logs (the last one repeats)
};

class SmartRefreshTest : public ::testing::Test {
protected:
    void SetUp() override {
        monitor_ = DiskIOMonitor::create(
            {std::make_shared<testing::ScriptedBlockDevices>(), std::make_shared<AnyPathOnFakeDisk>(), main_});
        const auto fetch = [f = fetch_](const std::string&, const CancellationToken& token) {
            std::unique_lock lock(f->mutex);
            const std::size_t call = f->times.size();
            f->times.emplace_back(Clock::now(), Clock::time_point{});
            const auto delay = f->delay;
            if (!f->lines.empty()) {
                log::logger("ScriptedFetch").error("{}", f->lines[std::min(call, f->lines.size() - 1)]);
            }
            lock.unlock();
            token.sleepFor(delay);
            lock.lock();
            f->times[call].second = Clock::now();
            return f->script[std::min(call + 1, f->script.size()) - 1];
        };
        refresh_ = SmartRefresh::create(monitor_, main_, fetch, 20ms);
        refresh_->setRoundObserver(
            [this](const std::string& name, Round round, const Outcome&) { rounds_.emplace_back(name, round); });
        monitor_->setSelectionFollower(refresh_);
    }
    // A fetch that was never cancelled keeps its task running.
    void TearDown() override {
        monitor_.reset();
        ASSERT_TRUE(main_->runUntil([&] { return refresh_->isFinished(); }, 10s));
    }
    void select(const std::string& device) {
        monitor_->selectVolume("/volumes/" + device);
        ASSERT_TRUE(main_->runUntil([&] { return selected() == device; }, 10s));
    }
    std::string selected() const {
        const auto& volume = monitor_->state().selectedVolume;
        return volume ? volume->deviceName : "";
    }
    void script(std::vector<Outcome> outcomes, Clock::duration delay = 0ms) {
        std::lock_guard lock(fetch_->mutex);
        fetch_->script = std::move(outcomes);
        fetch_->delay = delay;
    }
    std::size_t calls() {
        std::lock_guard lock(fetch_->mutex);
        return fetch_->times.size();
    }
    bool runUntil(const std::function<bool()>& done) { return main_->runUntil(done, 10s); }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<ScriptedFetch> fetch_ = std::make_shared<ScriptedFetch>();
    std::shared_ptr<DiskIOMonitor> monitor_;
    std::shared_ptr<SmartRefresh> refresh_;
    std::vector<std::pair<std::string, Round>> rounds_;
};

// A round starts one interval after the previous one ended.
TEST_F(SmartRefreshTest, RoundsPublishOnlyWhatDiffersFieldByField) {
    const DiskSMARTInfo passed = info("PASSED");
    DiskSMARTInfo reinterpreted = passed;  // the same output read again: fresh row ids
    reinterpreted.details[0].id = Uuid::make();
    script({outcome(passed), outcome(passed), outcome(reinterpreted), outcome({}), outcome({}), outcome(passed),
            outcome(std::nullopt, true)},
           5ms);
    const std::vector<Round> expected{Round::published, Round::identical, Round::published, Round::published,
                                      Round::identical, Round::published, Round::kept};
    select("fake0");
    ASSERT_TRUE(runUntil([&] { return rounds_.size() >= expected.size(); }));
    std::vector<Round> seen;
    for (std::size_t i = 0; i < expected.size(); ++i) seen.push_back(rounds_[i].second);
    EXPECT_THAT(seen, ElementsAreArray(expected));
    std::lock_guard lock(fetch_->mutex);
    const auto& times = fetch_->times;
    for (std::size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i].first - times[i - 1].second, 20ms) << i;
    EXPECT_EQ(monitor_->state().selectedVolume->smartInfo, passed);  // kept while the drive sleeps
}

// A drive that fails the same way every second must not fill the journal.
TEST_F(SmartRefreshTest, ALineEveryRoundRepeatsReachesTheLogOnceUntilItChanges) {
    const log::Capture capture;
    fetch_->lines = {"no SMART", "no SMART", "no SMART", "helper gone", "no SMART", "no SMART"};
    select("fake0");
    ASSERT_TRUE(runUntil([&] { return rounds_.size() >= 8; }));
    EXPECT_THAT(capture.messages("ScriptedFetch", log::Level::error),
                ::testing::ElementsAre("no SMART", "helper gone", "no SMART"));
    EXPECT_GE(capture.messages("ScriptedFetch", log::Level::debug).size(), 5u);
}

TEST_F(SmartRefreshTest, ReselectionCancelsTheOldTaskStaleResultsAreDiscardedAndPausedRoundsFetchNothing) {
    script({Outcome{}}, 1h);
    select("fake0");
    ASSERT_TRUE(runUntil([&] { return calls() > 0; }));
    script({outcome(info("PASSED"))});
    select("fake1");
    ASSERT_TRUE(runUntil([&] { return rounds_.size() >= 2; }));
    for (const auto& [name, round] : rounds_) EXPECT_EQ(name, "fake1");

    // Paused, as during a performance test, rounds fetch nothing and the data stay.
    refresh_->setPaused(true);
    ASSERT_TRUE(runUntil([&] { return rounds_.back().second == Round::paused; }));
    const std::size_t fetched = calls(), rounds = rounds_.size();
    ASSERT_TRUE(runUntil([&] { return rounds_.size() >= rounds + 3; }));
    EXPECT_EQ(calls(), fetched);
    EXPECT_EQ(rounds_.back().second, Round::paused);
    EXPECT_TRUE(monitor_->state().selectedVolume->smartInfo.has_value());
    refresh_->setPaused(false);

    // A task for a device that is no longer selected: its result is dropped.
    DiskVolumeDescriptor old;
    old.deviceName = "fake0";
    refresh_->start(old);
    ASSERT_TRUE(runUntil([&] { return rounds_.back().first == "fake0"; }));
    EXPECT_EQ(rounds_.back().second, Round::discarded);
    EXPECT_EQ(selected(), "fake1");
}

using Strings = std::vector<std::string>;
using View = FixedRingBuffer<std::string>::Elements;

static_assert(std::random_access_iterator<View::const_iterator>);

// Long enough to live on the heap, so that the sanitizers see a lost or doubly destroyed element.
std::string value(std::size_t i) { return "element number " + std::to_string(i) + " of the history"; }

// Reads the view segment by segment and element by element.
void expectHolds(const View& view, const Strings& expected, const std::string& where) {
    EXPECT_EQ(view.toVector(), expected) << where;
    EXPECT_EQ(Strings(view.begin(), view.end()), expected) << where;
}

// Against a deque: every append's result and count, and every view, which must still show what the
// buffer held then after evictions across segment boundaries, a removeAll and the buffer's destruction.
TEST(FixedRingBuffer, ViewsKeepWhatTheyShowedWhateverTheBufferDoesLater) {
    for (const std::size_t capacity : {1U, 2U, 3U, 5U, 1023U, 1024U, 1025U, 2500U}) {
        const std::string where = "capacity " + std::to_string(capacity);
        std::vector<std::pair<View, Strings>> kept;
        {
            FixedRingBuffer<std::string> buffer(capacity);
            const std::size_t length = buffer.segmentLength();
            const std::size_t appends = 3 * capacity + 2 * length + 7;
            const std::size_t every = std::max<std::size_t>(1, capacity / 5);
            std::deque<std::string> model;
            for (std::size_t i = 0; i < appends; ++i) {
                if (i == appends / 2) {
                    buffer.removeAll();
                    model.clear();
                    expectHolds(buffer.elements(), {}, where + ", after removeAll");
                }
                std::optional<std::string> evicted;
                if (model.size() == capacity) {
                    evicted = model.front();
                    model.pop_front();
                }
                model.push_back(value(i));
                ASSERT_EQ(buffer.append(value(i)), evicted) << where << ", append " << i;
                ASSERT_EQ(buffer.count(), model.size()) << where << ", append " << i;
                if (i % every == 0 || (i + 1) % length <= 2) {
                    kept.emplace_back(buffer.elements(), Strings(model.begin(), model.end()));
                }
            }
        }
        for (std::size_t k = 0; k < kept.size(); ++k) {
            expectHolds(View(kept[k].first), kept[k].second, where + ", view " + std::to_string(k));
        }
    }
}

// For ThreadSanitizer: a reader checks views while the owner appends into the segments they show.
TEST(FixedRingBuffer, ViewsCanBeReadOnAnotherThreadWhileTheBufferAppends) {
    constexpr std::size_t capacity = 3000;  // not a multiple of the segment length
    FixedRingBuffer<std::uint64_t> buffer(capacity);
    std::mutex mutex;
    FixedRingBuffer<std::uint64_t>::Elements latest;
    std::atomic<bool> done{false};
    std::atomic<std::size_t> checked{0}, bad{0};
    std::thread reader([&] {
        while (!done) {
            std::unique_lock lock(mutex);
            const auto view = latest;
            lock.unlock();
            if (view.empty()) continue;
            std::uint64_t next = view.front();
            const bool consecutive = std::all_of(view.begin(), view.end(), [&](auto e) { return e == next++; });
            bad += view.size() > capacity || !consecutive;
            ++checked;
        }
    });
    // Goes on until the reader has seen enough views; the cap only stops a broken build.
    for (std::uint64_t i = 0; i < 30000 || (checked < 50 && i < 50'000'000); ++i) {
        buffer.append(i);
        if (i % 17 == 16) {
            std::lock_guard lock(mutex);
            latest = buffer.elements();
        }
    }
    done = true;
    reader.join();
    EXPECT_GE(checked.load(), 50U);
    EXPECT_EQ(bad.load(), 0U);
}

}  // namespace
}  // namespace vantorix
