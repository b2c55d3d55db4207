#include <gmock/gmock.h>
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
constexpr auto kTimeout = 20s;

// Counters that move by a fixed number of sectors every time they are read, so every sample's
// deltas are known exactly whatever the timing.
class SteppingCounters {
public:
    explicit SteppingCounters(std::int64_t sectorStep) : step_(sectorStep) {}
    BlockStatistics read() {
        reads_.fetch_add(1);
        const std::uint64_t v = value_.fetch_add(static_cast<std::uint64_t>(step_));
        BlockStatistics s;
        s.sectorsWritten = v;
        s.sectorsRead = v * 2;
        s.readsCompleted = v / 100;
        s.writesCompleted = v / 50;
        return s;
    }
    std::uint64_t reads() const { return reads_.load(); }

private:
    std::int64_t step_;
    std::atomic<std::uint64_t> value_{1'000'000'000'000};
    std::atomic<std::uint64_t> reads_{0};
};

class DiskIOMonitorTest : public ::testing::Test {
protected:
    void SetUp() override {
        addDevice("fake0");
        monitor_ = DiskIOMonitor::create({devices_, std::make_shared<AnyPathOnFakeDisk>(), main_});
        subscription_ = monitor_->subscribe([this](const State&) { ++notifications_; });
    }
    void TearDown() override {
        if (monitor_) monitor_->stopMonitoring(false);
        main_->drain();
    }
    void addDevice(const std::string& name) {
        devices_->add(name, [counters = counters_] { return counters->read(); });
    }
    const State& state() const { return monitor_->state(); }
    bool runUntil(const std::function<bool()>& done) { return main_->runUntil(done, kTimeout); }
    void selectAndStart(Precision precision = Precision::ms10) {
        monitor_->setSamplingPrecision(precision);
        monitor_->selectVolume("/volumes/fake0");
        ASSERT_TRUE(runUntil([&] { return state().selectedVolume.has_value(); }));
        monitor_->startMonitoring();
    }
    void stopAndSettle() {
        monitor_->stopMonitoring(true);
        ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
        main_->drain();
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
    std::shared_ptr<SteppingCounters> counters_ = std::make_shared<SteppingCounters>(8);
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<DiskIOMonitor> monitor_;
    Subscription subscription_;
    int notifications_ = 0;
};

TEST(SamplingPrecision, RawValuesIntervalsAndLeeways) {
    using namespace std::chrono;
    const std::vector<std::tuple<long long, Precision, nanoseconds>> cases{
        {1, Precision::ms1, microseconds(200)},
        {10, Precision::ms10, microseconds(800)},
        {100, Precision::ms100, milliseconds(4)},
        {1000, Precision::ms1000, milliseconds(40)},
    };
    for (const auto& [raw, precision, leeway] : cases) {
        EXPECT_EQ(DiskIOMonitor::precisionFromRawValue(raw), precision);
        EXPECT_EQ(DiskIOMonitor::timerInterval(precision), milliseconds(raw));
        EXPECT_EQ(DiskIOMonitor::timerLeeway(precision), leeway);
    }
    for (long long bad : {0LL, 2LL, 5LL, 50LL, 999LL, 10000LL, -1LL}) EXPECT_FALSE(DiskIOMonitor::precisionFromRawValue(bad)) << bad;
}

TEST_F(DiskIOMonitorTest, StartWithoutASelectionOnlySetsTheError) {
    monitor_->startMonitoring();
    EXPECT_EQ(state().errorMessage, "Please select a valid volume.");
    EXPECT_FALSE(state().isMonitoring);
    main_->drain();
    EXPECT_FALSE(state().isMonitoring);
}

TEST_F(DiskIOMonitorTest, FailedSelectionClearsTheSelectionAndShowsTheError) {
    monitor_->selectVolume("/volumes/fake0");
    ASSERT_TRUE(runUntil([&] { return state().selectedVolume.has_value(); }));
    monitor_->selectVolume("/missing/folder");
    ASSERT_TRUE(runUntil([&] { return !state().selectedVolume.has_value(); }));
    EXPECT_EQ(state().errorMessage, "Failed to find the block device of the selected path. No such file or folder.");
}

TEST_F(DiskIOMonitorTest, SamplesAreTheCounterDeltasAndStopKeepsThem) {
    selectAndStart(Precision::ms10);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 20; }));
    EXPECT_TRUE(state().isMonitoring);
    EXPECT_TRUE(state().monitoringStartDate);
    stopAndSettle();

    const auto& s = state();
    ASSERT_GE(s.samples.size(), 20u);
    expectSteps();
    EXPECT_EQ(s.currentWriteBytes, 4096u);
    // The baseline read when sampling begins gives no sample; a tick that was running at the stop
    // may have read once more without delivering.
    EXPECT_GE(counters_->reads(), s.samples.size() + 1);
    EXPECT_LE(counters_->reads(), s.samples.size() + 2);
    EXPECT_FALSE(s.isMonitoring);
    EXPECT_FALSE(s.monitoringStartDate);
    EXPECT_EQ(s.monitoringDuration, 0);

    // Starting again clears the history and the totals.
    monitor_->startMonitoring();
    ASSERT_TRUE(runUntil([&] { return state().isMonitoring; }));
    EXPECT_LE(state().samples.size(), 2u);
    EXPECT_LE(state().totalWriteBytes, 2u * 4096u);
}

TEST_F(DiskIOMonitorTest, CountersGoingBackwardsGiveWrappedDeltas) {
    counters_ = std::make_shared<SteppingCounters>(-5);
    addDevice("fake0");
    selectAndStart(Precision::ms1);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 3; }));
    stopAndSettle();
    expectSteps((std::uint64_t(0) - 5u) * 512u);
}

TEST_F(DiskIOMonitorTest, PrecisionChangeDuringARunLosesAndDuplicatesNothing) {
    selectAndStart(Precision::ms100);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 3; }));
    const int before = notifications_;
    monitor_->setSamplingPrecision(Precision::ms100);  // the same precision: nothing happens
    EXPECT_EQ(notifications_, before);
    monitor_->setSamplingPrecision(Precision::ms1);
    EXPECT_EQ(state().samplingPrecision, Precision::ms1);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 200; }));
    stopAndSettle();
    expectSteps();
}

TEST_F(DiskIOMonitorTest, ADisappearingDeviceEndsTheRunWithTheErrorAndKeepsTheSamples) {
    selectAndStart(Precision::ms10);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 5; }));
    devices_->remove("fake0");
    ASSERT_TRUE(runUntil([&] { return !state().isMonitoring; }));
    main_->drain();
    EXPECT_EQ(state().errorMessage, "Unable to fetch statistics for the selected volume.");
    EXPECT_GE(state().samples.size(), 5u);
    expectSteps();
}

TEST_F(DiskIOMonitorTest, AVolumeWithoutStatisticsFailsAtTheStart) {
    monitor_->selectVolume("/volumes/tmpfs");
    ASSERT_TRUE(runUntil([&] { return state().selectedVolume.has_value(); }));
    monitor_->startMonitoring();
    ASSERT_TRUE(runUntil([&] { return state().errorMessage.has_value() && !state().isMonitoring; }));
    EXPECT_EQ(state().errorMessage, "Unable to fetch statistics for the selected volume.");
    EXPECT_EQ(state().samples.size(), 0u);
}

TEST_F(DiskIOMonitorTest, SelectingAnotherVolumeStopsTheRunWithoutRestarting) {
    addDevice("fake1");
    selectAndStart(Precision::ms10);
    ASSERT_TRUE(runUntil([&] { return state().samples.size() >= 3; }));
    monitor_->selectVolume("/volumes/fake1");
    ASSERT_TRUE(runUntil([&] { return state().selectedVolume && state().selectedVolume->deviceName == "fake1"; }));
    main_->drain();
    EXPECT_FALSE(state().isMonitoring);
    const auto kept = state().samples.size();
    EXPECT_GE(kept, 3u);
    expectSteps();
    std::this_thread::sleep_for(50ms);
    main_->drain();
    EXPECT_EQ(state().samples.size(), kept);
}

TEST_F(DiskIOMonitorTest, ALongDeliveryPeriodHoldsTheSamplesBackUntilTheyAreAskedFor) {
    monitor_ = DiskIOMonitor::create({devices_, std::make_shared<AnyPathOnFakeDisk>(), main_, std::chrono::hours(1)});
    selectAndStart(Precision::ms1);
    // A tenth of a second: six periods of the default delivery.
    ASSERT_TRUE(runUntil([&] { return state().isMonitoring && counters_->reads() >= 100; }));
    main_->drain();
    EXPECT_TRUE(state().samples.empty());

    monitor_->deliverPendingSamples();
    main_->drain();
    // The baseline reads the counters without giving a sample, and a tick may be between its read
    // and its enqueue.
    EXPECT_GE(state().samples.size(), 98u);
    expectSteps();
}

TEST_F(DiskIOMonitorTest, HistoryKeepsTheNewestSixtyThousandWhileTotalsCountEverySample) {
    std::vector<Uuid> ids;
    for (int batch = 0; batch < 61; ++batch) {
        AggregationCoordinator::Payload payload;
        for (int i = 0; i < 1000; ++i) {
            DiskSample sample{Uuid::make(), std::chrono::system_clock::now(), 3, 7, 1, 1};
            ids.push_back(sample.id);
            payload.readBytes += sample.readBytes;
            payload.writeBytes += sample.writeBytes;
            payload.samples.push_back(sample);
        }
        payload.latestSample = payload.samples.back();
        monitor_->applyBatch(payload);
    }
    const auto& s = state();
    ASSERT_EQ(s.samples.size(), 60000u);
    EXPECT_EQ(s.samples.front().id, ids[1000]);
    EXPECT_EQ(s.samples.back().id, ids.back());
    EXPECT_EQ(s.totalReadBytes, 61000u * 3);
    EXPECT_EQ(s.totalWriteBytes, 61000u * 7);
}

std::vector<DiskSample> samplesOf(std::size_t n, std::uint64_t bytes, std::uint64_t ops) {
    return std::vector<DiskSample>(n, DiskSample{Uuid::make(), {}, bytes, 2 * bytes, ops, 2 * ops});
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
        const auto samples = samplesOf(c.count, 1000, 10);
        const auto speeds = MonitorMetrics::lastSecondSpeeds(samples, c.precision);
        const auto rates = MonitorMetrics::operationRates(samples, c.precision);
        EXPECT_DOUBLE_EQ(speeds.read, c.speeds.read);
        EXPECT_DOUBLE_EQ(speeds.write, c.speeds.write);
        EXPECT_NEAR(rates.read, c.rates.read, 1e-6 * c.rates.read);
        EXPECT_NEAR(rates.write, c.rates.write, 1e-6 * c.rates.write);
    }
    EXPECT_EQ(MonitorMetrics::durationText(3725.4), "01:02:05");
    EXPECT_EQ(MonitorMetrics::durationText(90000), "25:00:00");
}

}  // namespace
}  // namespace vantorix
