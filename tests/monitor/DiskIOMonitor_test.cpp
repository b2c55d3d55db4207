#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "support/ManualMainExecutor.h"
#include "monitor/DiskIOMonitor.h"
#include "monitor/MonitorMetrics.h"
#include "FakeVolumes.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedBlockDevices.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using Precision = DiskIOMonitor::SamplingPrecision;
using State = DiskIOMonitor::State;

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
                BlockStatistics s;
                s.sectorsWritten = c->value.fetch_add(c->step);
                s.sectorsRead = 2 * s.sectorsWritten;
                return s;
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

    testing::ScopedLanguage english_{"en_US.UTF-8"};
    std::shared_ptr<testing::ScriptedBlockDevices> devices_ = std::make_shared<testing::ScriptedBlockDevices>();
    std::shared_ptr<SteppingCounters> counters_ = std::make_shared<SteppingCounters>();
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<DiskIOMonitor> monitor_;
};

TEST(SamplingPrecision, RawValuesAndIntervals) {
    for (const long long raw : {1LL, 10LL, 100LL, 1000LL}) {
        const auto precision = DiskIOMonitor::precisionFromRawValue(raw);
        ASSERT_TRUE(precision) << raw;
        EXPECT_EQ(DiskIOMonitor::timerInterval(*precision), std::chrono::milliseconds(raw));
    }
    for (long long bad : {0LL, 2LL, 50LL, 999LL, 10000LL, -1LL}) {
        EXPECT_FALSE(DiskIOMonitor::precisionFromRawValue(bad)) << bad;
    }
}

TEST_F(DiskIOMonitorTest, FailuresBeforeARunShowTheErrorAndLeaveItStopped) {
    monitor_->startMonitoring();
    EXPECT_EQ(state().errorMessage, "Please select a valid volume.");

    select("/volumes/tmpfs");  // a volume whose device has no counters
    monitor_->startMonitoring();
    ASSERT_TRUE(runUntil([&] { return state().errorMessage.has_value() && !state().isMonitoring; }));
    EXPECT_EQ(state().errorMessage, "Unable to fetch statistics for the selected volume.");
    EXPECT_TRUE(state().samples.empty());

    monitor_->selectVolume("/missing/folder");
    ASSERT_TRUE(runUntil([&] { return !state().selectedVolume.has_value(); }));
    EXPECT_EQ(state().errorMessage, "Failed to find the block device of the selected path. No such file or folder.");
    main_->drain();
    EXPECT_FALSE(state().isMonitoring);
}

// Also for ThreadSanitizer: the precision changes while the timer runs.
TEST_F(DiskIOMonitorTest, SamplesAreTheCounterDeltasAcrossAPrecisionChangeAndARunEndsKeepingThem) {
    selectAndStart(Precision::ms10);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 20; }));
    EXPECT_TRUE(state().isMonitoring);
    EXPECT_TRUE(state().monitoringStartDate);
    monitor_->setSamplingPrecision(Precision::ms1);
    EXPECT_EQ(state().samplingPrecision, Precision::ms1);
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

TEST_F(DiskIOMonitorTest, HistoryKeepsTheNewestSixtyThousandWhileTotalsCountEverySample) {
    AggregationCoordinator::Payload payload;
    for (int i = 0; i < 61000; ++i) payload.samples.push_back({Uuid::make(), {}, 3, 7, 1, 1});
    payload.readBytes = 61000 * 3;
    payload.writeBytes = 61000 * 7;
    payload.latestSample = payload.samples.back();
    monitor_->applyBatch(payload);
    const auto& s = state();
    ASSERT_EQ(s.samples.size(), 60000u);
    EXPECT_EQ(s.samples.front().id, payload.samples[1000].id);
    EXPECT_EQ(s.samples.back().id, payload.samples.back().id);
    EXPECT_EQ(s.totalReadBytes, 61000u * 3);
    EXPECT_EQ(s.totalWriteBytes, 61000u * 7);
}

TEST(MonitorMetrics, SpeedsAndRatesOverTheLastSecond) {
    struct Case {
        const char* name;
        Precision precision;
        std::size_t count;
        MonitorMetrics::Rates speeds;
        MonitorMetrics::Rates rates;
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
        const std::vector<DiskSample> samples(c.count, DiskSample{Uuid::make(), {}, 1000, 2000, 10, 20});
        const auto speeds = MonitorMetrics::lastSecondSpeeds(samples, c.precision);
        const auto rates = MonitorMetrics::operationRates(samples, c.precision);
        EXPECT_DOUBLE_EQ(speeds.read, c.speeds.read);
        EXPECT_DOUBLE_EQ(speeds.write, c.speeds.write);
        EXPECT_NEAR(rates.read, c.rates.read, 1e-6 * c.rates.read);
        EXPECT_NEAR(rates.write, c.rates.write, 1e-6 * c.rates.write);
    }
}

}  // namespace
}  // namespace vantorix
