#include <gtest/gtest.h>

#include <map>

#include "exporter/MetricsCollector.h"
#include "support/FakeVolumes.h"
#include "support/ScriptedBlockDevices.h"

namespace vantorix::exporter {
namespace {

using namespace std::chrono_literals;
using Clock = MetricsCollector::Clock;

class MetricsCollectorTest : public ::testing::Test {
protected:
    // A device whose counters are whatever the test last set (samples are taken on the test's thread).
    void addDevice(const std::string& name, std::shared_ptr<BlockStatistics> counters) {
        devices_->add(name, [counters] { return *counters; });
    }
    MetricsCollector::Dependencies dependencies() {
        MetricsCollector::Dependencies d;
        d.devices = devices_;
        d.files = std::make_shared<AnyPathOnFakeDisk>();
        d.mountPoints = [this] { return mounts_; };
        d.samplingInterval = 10ms;
        d.unixTime = [] { return 1.7e9; };
        return d;
    }

    std::shared_ptr<testing::ScriptedBlockDevices> devices_ = std::make_shared<testing::ScriptedBlockDevices>();
    std::vector<std::string> mounts_;
};

TEST_F(MetricsCollectorTest, BurstPeaksBelongToEachScraperAndRestartAtItsScrape) {
    // Near the wraps: the next steps carry the byte counter past 2^64 and the write time past 2^32 ms.
    auto device = std::make_shared<BlockStatistics>();
    device->sectorsWritten = std::numeric_limits<std::uint64_t>::max() - 1000;
    device->writeMilliseconds = (1ULL << 32) - 30;
    addDevice("fake0", device);
    mounts_ = {"/volumes/fake0"};
    MetricsCollector collector(dependencies());
    ASSERT_EQ(collector.refreshVolumes(), 1u);

    const auto t0 = Clock::now();
    collector.sample(t0);  // the baseline: no interval yet
    EXPECT_EQ(collector.scrape("a").volumes.at(0).writePeak, 0);

    // Each step: what the device does in the next 10 ms, then which scrapers scrape and the peaks
    // each sees (an absent await is -1).
    struct Scrape {
        std::string scraper;
        double peak, await, queueDepth;
    };
    struct Step {
        std::uint64_t sectors, writes, writeMilliseconds, weightedMilliseconds;
        std::vector<Scrape> scrapes;
    };
    const std::vector<Step> steps{
        {2000, 4, 8, 20, {}},     // 102.4 MB/s, across the wrap; 2 ms await, depth 2
        {10000, 10, 50, 40, {}},  // 512 MB/s; 5 ms (the mean of both intervals is 4.1 ms), depth 4
        // b is new: it gets the last interval, which completed nothing.
        {4000, 0, 0, 30, {{"a", 512e6, 5e-3, 4}, {"b", 204.8e6, -1, 3}}},
        {2000, 1, 1, 10, {{"a", 102.4e6, 1e-3, 1}}},
        {6000, 0, 0, 0, {{"b", 307.2e6, 1e-3, 1}, {"a", 307.2e6, -1, 0}}},  // b's window began at its first scrape
        {0, 2, 200, 200, {{"a", 0, 0.1, 20}}},
    };
    auto now = t0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        device->sectorsWritten += steps[i].sectors;
        device->writesCompleted += steps[i].writes;
        device->writeMilliseconds = (device->writeMilliseconds + steps[i].writeMilliseconds) % (1ULL << 32);
        device->weightedMilliseconds += steps[i].weightedMilliseconds;
        now += 10ms;
        collector.sample(now);
        for (const auto& s : steps[i].scrapes) {
            SCOPED_TRACE("step " + std::to_string(i) + " scraper " + s.scraper);
            const auto figures = collector.scrape(s.scraper).volumes.at(0);
            EXPECT_NEAR(figures.writePeak, s.peak, 1);
            EXPECT_NEAR(figures.writeAwaitPeakSeconds.value_or(-1), s.await, 1e-12);
            EXPECT_DOUBLE_EQ(figures.queueDepthPeak.value_or(-1), s.queueDepth);
            EXPECT_FALSE(figures.readAwaitPeakSeconds);
            EXPECT_EQ(figures.writtenBytes, device->sectorsWritten * 512);
        }
    }
    // A scrape with no interval since reports the last interval's figures.
    const auto again = collector.scrape("a").volumes.at(0);
    EXPECT_EQ(again.writePeak, 0);
    EXPECT_EQ(again.writeAwaitPeakSeconds, 0.1);
    const auto figures = collector.scrape("a").volumes.at(0);
    EXPECT_EQ(figures.writeHistogram.count, steps.size());
    EXPECT_EQ(figures.writeHistogram.counts[0], 1u);  // the idle interval
    // Only intervals that completed writes are observed; the write time is summed past its wrap.
    EXPECT_EQ(figures.writeAwaitHistogram.count, 4u);
    EXPECT_EQ(figures.load.writeMilliseconds, (1ULL << 32) - 30 + 259);
    EXPECT_EQ(figures.labels.device, "fake0");
    EXPECT_EQ(collector.scraperCount(), 2u);

    // Scrapers beyond the limit push out the one heard from least recently.
    for (std::size_t i = 0; i < MetricsCollector::kMaximumScrapers + 5; ++i) collector.scrape("s" + std::to_string(i));
    EXPECT_EQ(collector.scraperCount(), MetricsCollector::kMaximumScrapers);
}

// A vanished device is dropped from the export in the exporter's integration test.
TEST_F(MetricsCollectorTest, EachVolumeOnceAndSmartAskedOncePerIntervalAndOnlyAfterTraffic) {
    auto busy = std::make_shared<BlockStatistics>();
    addDevice("fake0", busy);
    addDevice("fake1", std::make_shared<BlockStatistics>());
    // The same device twice counts once; a folder that does not resolve is passed over.
    mounts_ = {"/volumes/fake0", "/other/fake0", "/missing/fake2", "/volumes/fake1"};
    std::map<std::string, int> asked;
    bool asleep = false, helperFailed = false;
    auto d = dependencies();
    d.smart = [&](const std::string& device) {
        const int answer = ++asked[device];
        MetricsCollector::SmartReading reading;
        reading.driveAsleep = asleep;
        reading.helperFailed = helperFailed;
        if (!asleep && !helperFailed)
            reading.figures.emplace().drive.snapshot[health::Figure::temperature] = 30 + answer;
        return reading;
    };
    MetricsCollector collector(d);
    ASSERT_EQ(collector.refreshVolumes(), 2u);

    const auto t0 = Clock::now();
    collector.refreshSmart(t0);  // before the first sample nothing is known of the traffic
    EXPECT_TRUE(asked.empty());
    // Each step: seconds after t0, the sectors fake0 reads and writes and the flushes it completes
    // before it, the drive's state, and how often each device has been asked after the refresh.
    struct Step {
        int at, reads, writes, flushes;
        bool asleep, helperFailed;
        int fake0, fake1;
    };
    const std::vector<Step> steps{
        {0, 0, 0, 0, false, false, 1, 1},    // the first refresh asks every drive
        {59, 0, 8, 0, false, false, 1, 1},   // within the interval
        {61, 0, 0, 0, false, false, 2, 1},   // fake0 wrote since; fake1 stayed idle
        {122, 8, 0, 0, true, false, 3, 1},   // a read; the drive sleeps: its figures stay
        {183, 0, 0, 5, false, false, 3, 1},  // flushes alone: idle since the drive answered
        {244, 0, 8, 0, false, true, 4, 1},   // no helper: the drive was not asked...
        {305, 0, 0, 0, false, true, 5, 1},   // ...so it is asked again, idle or not
        {366, 0, 0, 0, false, false, 6, 1}, {427, 0, 0, 0, false, false, 6, 1},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE("at " + std::to_string(step.at) + " s");
        busy->sectorsRead += static_cast<std::uint64_t>(step.reads);
        busy->sectorsWritten += static_cast<std::uint64_t>(step.writes);
        // A flush is an empty write: a request completed, no sector moved.
        busy->writesCompleted += static_cast<std::uint64_t>(step.flushes);
        busy->flushesCompleted += static_cast<std::uint64_t>(step.flushes);
        asleep = step.asleep;
        helperFailed = step.helperFailed;
        const auto now = t0 + std::chrono::seconds(step.at);
        collector.sample(now);
        collector.refreshSmart(now);
        EXPECT_EQ(asked["fake0"], step.fake0);
        EXPECT_EQ(asked["fake1"], step.fake1);
    }
    const auto scraped = collector.scrape("a");
    ASSERT_EQ(scraped.volumes.size(), 2u);
    // The last answers: fake0's sixth, fake1's first, read at the (fixed) wall clock's time.
    for (const auto& [volume, temperature] : {std::pair{scraped.volumes[0], 36.0}, {scraped.volumes[1], 31.0}}) {
        ASSERT_TRUE(volume.smart);
        EXPECT_EQ(volume.smart->drive.snapshot[health::Figure::temperature], temperature);
        EXPECT_EQ(volume.smart->refreshedAt, 1.7e9);
        EXPECT_EQ(volume.smart->ageSeconds, 0);
    }
}

}  // namespace
}  // namespace vantorix::exporter
