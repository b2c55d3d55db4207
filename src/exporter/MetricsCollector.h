#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "exporter/Exposition.h"
#include "health/HealthHistory.h"
#include "monitor/StatisticsSession.h"
#include "platform/BlockDevice.h"
#include "platform/VolumeInfoSource.h"

namespace vantorix::exporter {

// The figures behind the exporter's /metrics: a set of volumes whose block-layer counters are read
// at a fixed interval, each interval's throughput and await counted into histograms and, with its
// average queue depth, into the peaks of every scraper, and each drive's SMART figures kept from
// the last refresh.
//
// Threads: sample() and refreshVolumes() on one sampling thread; refreshSmart() on another (it
// blocks on the helper); scrape() on any thread, concurrently with everything else.
class MetricsCollector {
public:
    using Clock = std::chrono::steady_clock;

    // What a SMART fetch gives: the figures, or that the drive is asleep and was left alone, or
    // nothing (no SMART data; or no helper, and then the drive was not asked at all).
    struct SmartReading {
        std::optional<SmartFigures> figures;
        bool driveAsleep = false;
        bool helperFailed = false;
    };

    struct Dependencies {
        std::shared_ptr<BlockDevices> devices;
        std::shared_ptr<VolumeInfoSource> files;
        // The folders to watch; when empty, whatever `mountPoints` lists at each refresh.
        std::vector<std::string> paths;
        std::function<std::vector<std::string>()> mountPoints;
        std::function<SmartReading(const std::string& device)> smart;  // may be empty: no SMART figures
        std::chrono::nanoseconds samplingInterval = std::chrono::seconds(1);
        std::chrono::nanoseconds smartInterval = std::chrono::minutes(1);
        std::function<double()> unixTime;  // the wall clock, for the SMART refresh stamp and age
        // Where each SMART reading is recorded and the growth figures are read back at every
        // refresh; may be null. Used on refreshSmart()'s thread only.
        std::shared_ptr<health::HealthHistory> history;
    };

    // Scrapers are told apart by a key (the client's address and user agent); this many are kept,
    // the one heard from least recently giving way to a new one.
    static constexpr std::size_t kMaximumScrapers = 64;

    explicit MetricsCollector(Dependencies dependencies);
    ~MetricsCollector();
    MetricsCollector(const MetricsCollector&) = delete;
    MetricsCollector& operator=(const MetricsCollector&) = delete;

    // Resolves the folders not watched yet (a volume that came back, a new mount) and starts
    // watching each new device once. Returns how many volumes are watched.
    std::size_t refreshVolumes();
    // Reads every volume's counters once and folds the interval since the last reading in. A
    // volume whose counters can no longer be read is dropped.
    void sample(Clock::time_point now);
    // For each watched device sampled at least once and not refreshed within the SMART interval:
    // fetches its SMART figures unless its drive has answered before and the device has read and
    // written nothing since (an idle drive is left alone, so that it may sleep), records them in the
    // history and reads the growth since baseline back. Blocks for as long as the fetches take.
    void refreshSmart(Clock::time_point now);

    // The figures as one scraper sees them: its peaks cover the time since its previous scrape (a
    // new scraper gets the last interval's figures), and restart from here.
    Exposition scrape(const std::string& scraperKey);

    std::size_t volumeCount() const;
    std::size_t scraperCount() const;

private:
    struct Peaks;
    struct Volume;
    struct Scraper;
    struct Reading;
    std::vector<std::string> wantedPaths() const;

    void recordSmart(Volume& volume, std::optional<SmartFigures> fetched);

    Dependencies dependencies_;
    double intervalSeconds_;
    mutable std::mutex lock_;
    std::vector<std::shared_ptr<Volume>> volumes_;  // under lock_; sessions used on the sampling thread only
    std::vector<Scraper> scrapers_;                 // under lock_
    std::vector<Reading> readings_;                 // sample()'s own, kept to spare an allocation a tick
    std::uint64_t nextVolumeId_ = 1;
    std::uint64_t scrapeCounter_ = 0;
};

}  // namespace vantorix::exporter
