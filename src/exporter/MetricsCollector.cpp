#include "exporter/MetricsCollector.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <utility>

#include "log/Log.h"
#include "monitor/DeviceLoad.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix::exporter {
namespace {

const log::Logger& logger() {
    static const log::Logger& instance = log::logger("Exporter");
    return instance;
}

double seconds(std::chrono::nanoseconds duration) { return std::chrono::duration<double>(duration).count(); }

std::optional<double> seconds(std::optional<double> milliseconds) {
    if (!milliseconds) return std::nullopt;
    return *milliseconds / 1000;
}

std::optional<double> highest(std::optional<double> a, std::optional<double> b) {
    if (!a || !b) return a ? a : b;
    return std::max(*a, *b);
}

}  // namespace

// One interval's figures, or the highest of each over a run of intervals. A figure an interval
// does not have (an await without completions) leaves the highest as it was.
struct MetricsCollector::Peaks {
    double read = 0;  // bytes per second
    double write = 0;
    std::optional<double> readAwait;  // seconds
    std::optional<double> writeAwait;
    std::optional<double> queueDepth;

    void include(const Peaks& interval) {
        read = std::max(read, interval.read);
        write = std::max(write, interval.write);
        readAwait = highest(readAwait, interval.readAwait);
        writeAwait = highest(writeAwait, interval.writeAwait);
        queueDepth = highest(queueDepth, interval.queueDepth);
    }
};

struct MetricsCollector::Volume {
    std::uint64_t id = 0;
    std::string path;
    VolumeLabels labels;

    // The sampling thread's own.
    std::unique_ptr<StatisticsSession> session;
    std::optional<BlockStatistics> previous;
    Clock::time_point previousAt{};

    // Under the collector's lock.
    BlockStatistics latest;
    LoadCounters load;  // the first reading's counters plus every difference since
    Peaks last;         // the last interval's figures
    ThroughputHistogram readHistogram;
    ThroughputHistogram writeHistogram;
    AwaitHistogram readAwaitHistogram;
    AwaitHistogram writeAwaitHistogram;
    bool sampled = false;
    std::optional<SmartFigures> smart;  // written on refreshSmart()'s thread only
    std::optional<Clock::time_point> smartAttemptedAt;
    // Sectors read and written when the drive last answered a SMART fetch. Moved data, not requests:
    // the empty write that carries a cache flush (every file system gets one at each sync(2) on the
    // machine) does not count as use.
    std::optional<std::pair<std::uint64_t, std::uint64_t>> smartAnsweredAt;
};

struct MetricsCollector::Scraper {
    std::string key;
    std::uint64_t lastSeen = 0;
    std::unordered_map<std::uint64_t, Peaks> peaks;  // by volume id; a volume without one had no interval since
};

struct MetricsCollector::Reading {
    Volume* volume;
    std::optional<BlockStatistics> snapshot;
    LoadCounters span;  // since the previous reading; from zero for the first
    Peaks figures;      // the interval's, when `interval`
    bool interval = false;
};

MetricsCollector::MetricsCollector(Dependencies dependencies)
    : dependencies_(std::move(dependencies)), intervalSeconds_(seconds(dependencies_.samplingInterval)) {
    if (!dependencies_.unixTime) {
        dependencies_.unixTime = [] {
            return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        };
    }
}

MetricsCollector::~MetricsCollector() {
    for (const auto& volume : volumes_) {
        if (volume->session) volume->session->end();
    }
}

std::vector<std::string> MetricsCollector::wantedPaths() const {
    if (!dependencies_.paths.empty()) return dependencies_.paths;
    return dependencies_.mountPoints ? dependencies_.mountPoints() : std::vector<std::string>{};
}

std::size_t MetricsCollector::refreshVolumes() {
    const auto wanted = wantedPaths();
    std::vector<std::shared_ptr<Volume>> added;
    std::vector<std::uint64_t> gone;
    // Discovered mounts that are no longer mounted go; named folders stay until their device does.
    if (dependencies_.paths.empty()) {
        for (const auto& volume : volumes_) {
            if (std::find(wanted.begin(), wanted.end(), volume->path) == wanted.end()) gone.push_back(volume->id);
        }
    }
    const auto watched = [&](const std::string& device) {
        const auto same = [&](const std::shared_ptr<Volume>& v) {
            return v->labels.device == device && std::find(gone.begin(), gone.end(), v->id) == gone.end();
        };
        return std::any_of(volumes_.begin(), volumes_.end(), same) || std::any_of(added.begin(), added.end(), same);
    };
    for (const auto& path : wanted) {
        const auto known = std::find_if(volumes_.begin(), volumes_.end(),
                                        [&](const auto& v) { return v->path == path; });
        if (known != volumes_.end() && std::find(gone.begin(), gone.end(), (*known)->id) == gone.end()) continue;
        auto descriptor = DiskVolumeResolver::resolve(path, *dependencies_.files, *dependencies_.devices);
        if (!descriptor) {
            logger().debug("Not watching {}: {}", path, descriptor.error().description());
            continue;
        }
        if (watched(descriptor->deviceName)) continue;
        auto session = StatisticsSession::create(dependencies_.devices, descriptor->deviceName);
        if (!session) {
            logger().debug("Not watching {}: {}", path, session.error().description());
            continue;
        }
        auto volume = std::make_shared<Volume>();
        volume->path = path;
        volume->labels = VolumeLabels{descriptor->deviceName,
                                      descriptor->mountPoint,
                                      descriptor->fileSystemDescription.value_or(""),
                                      descriptor->connectionTypeDescription,
                                      descriptor->connectionSpeedDescription.value_or(""),
                                      descriptor->hardwareVendor.value_or(""),
                                      descriptor->hardwareModel.value_or(""),
                                      "",
                                      ""};
        volume->session = std::move(session).value();
        logger().notice("Watching {} ({})", path, descriptor->deviceName);
        added.push_back(std::move(volume));
    }
    std::lock_guard guard(lock_);
    for (const auto id : gone) {
        const auto found = std::find_if(volumes_.begin(), volumes_.end(), [id](const auto& v) { return v->id == id; });
        logger().notice("No longer watching {}", (*found)->path);
        (*found)->session->end();
        volumes_.erase(found);
        for (auto& scraper : scrapers_) scraper.peaks.erase(id);
    }
    for (auto& volume : added) {
        volume->id = nextVolumeId_++;
        volumes_.push_back(std::move(volume));
    }
    return volumes_.size();
}

// One volume's reading in a sample, taken before the lock and folded in under it.
void MetricsCollector::sample(Clock::time_point now) {
    std::vector<Reading>& readings = readings_;
    readings.clear();
    for (const auto& volume : volumes_) {
        Reading reading{volume.get(), std::nullopt, {}, {}, false};
        if (auto snapshot = volume->session->snapshot()) {
            reading.snapshot = *snapshot;
            // The first reading counts from zero, so the summed counters start at the kernel's.
            const auto wall = volume->previous ? now - volume->previousAt : Clock::duration::zero();
            reading.span = loadDifference(volume->previous.value_or(BlockStatistics{}), *snapshot, wall);
            if (volume->previous && now > volume->previousAt) {
                const double elapsed = seconds(wall);
                // Unsigned differences: the counters wrap modulo 2^64.
                auto& f = reading.figures;
                f.read = static_cast<double>(snapshot->bytesRead() - volume->previous->bytesRead()) / elapsed;
                f.write = static_cast<double>(snapshot->bytesWritten() - volume->previous->bytesWritten()) / elapsed;
                const auto load = loadFigures(reading.span);
                f.readAwait = seconds(load.readAwaitMilliseconds);
                f.writeAwait = seconds(load.writeAwaitMilliseconds);
                f.queueDepth = load.averageQueueDepth;
                reading.interval = true;
            }
            volume->previous = *snapshot;
            volume->previousAt = now;
        } else {
            logger().notice("No longer watching {}: {}", volume->path, snapshot.error().description());
        }
        readings.push_back(reading);
    }

    std::lock_guard guard(lock_);
    for (const auto& reading : readings) {
        Volume& volume = *reading.volume;
        if (!reading.snapshot) continue;
        volume.latest = *reading.snapshot;
        volume.sampled = true;
        volume.load += reading.span;
        if (!reading.interval) continue;
        const Peaks& f = reading.figures;
        volume.last = f;
        volume.readHistogram.observe(f.read);
        volume.writeHistogram.observe(f.write);
        if (f.readAwait) volume.readAwaitHistogram.observe(*f.readAwait);
        if (f.writeAwait) volume.writeAwaitHistogram.observe(*f.writeAwait);
        for (auto& scraper : scrapers_) {
            auto [peak, fresh] = scraper.peaks.try_emplace(volume.id, f);
            if (!fresh) peak->second.include(f);
        }
    }
    for (const auto& reading : readings) {
        if (reading.snapshot) continue;
        const auto id = reading.volume->id;
        reading.volume->session->end();
        volumes_.erase(std::find_if(volumes_.begin(), volumes_.end(), [id](const auto& v) { return v->id == id; }));
        for (auto& scraper : scrapers_) scraper.peaks.erase(id);
    }
}

void MetricsCollector::refreshSmart(Clock::time_point now) {
    if (!dependencies_.smart) return;
    struct Due {
        std::shared_ptr<Volume> volume;
        bool ask;
        std::pair<std::uint64_t, std::uint64_t> moved;
    };
    std::vector<Due> due;
    {
        std::lock_guard guard(lock_);
        for (const auto& volume : volumes_) {
            if (!volume->sampled) continue;  // its counters are not known yet
            if (volume->smartAttemptedAt && now - *volume->smartAttemptedAt < dependencies_.smartInterval) continue;
            volume->smartAttemptedAt = now;
            const std::pair moved{volume->latest.sectorsRead, volume->latest.sectorsWritten};
            due.push_back({volume, volume->smartAnsweredAt != moved, moved});
        }
    }
    for (const auto& [volume, ask, moved] : due) {
        if (!ask) {
            recordSmart(*volume, std::nullopt);
            continue;
        }
        // A drive that fails the same way every minute says so in the log once.
        const log::RoundScope round(
            fmt::format("exporter SMART {} {}", volume->labels.device, static_cast<const void*>(this)));
        auto reading = dependencies_.smart(volume->labels.device);
        if (reading.figures) {
            reading.figures->refreshedAt = dependencies_.unixTime();
            reading.figures->drive.snapshot.at = static_cast<std::int64_t>(reading.figures->refreshedAt);
        }
        if (!reading.helperFailed) {
            std::lock_guard guard(lock_);
            volume->smartAnsweredAt = moved;
        }
        recordSmart(*volume, std::move(reading.figures));  // asleep or unavailable: what was known stays
    }
}

// Records a fresh reading in the history and reads the drive's growth back from it, so that an
// acknowledgement made by another process shows at the next refresh.
void MetricsCollector::recordSmart(Volume& volume, std::optional<SmartFigures> fetched) {
    auto& history = dependencies_.history;
    const bool fresh = fetched.has_value();
    std::optional<SmartFigures> figures = fresh ? std::move(fetched) : volume.smart;
    if (!figures) return;
    const auto& identity = figures->drive.identity;
    if (history && identity.known()) {
        if (fresh) {
            if (auto recorded = history->record(identity, figures->drive.snapshot); !recorded) {
                logger().error("Cannot record the SMART figures of {} in {}: {}", volume.labels.device, history->path(),
                               recorded.error());
            }
        }
        if (auto growth = history->growth(identity.key())) {
            figures->growth = std::move(growth).value();
        } else {
            logger().error("Cannot read the growth of {} from {}: {}", volume.labels.device, history->path(),
                           growth.error());
        }
    }
    std::lock_guard guard(lock_);
    volume.smart = std::move(figures);
}

Exposition MetricsCollector::scrape(const std::string& scraperKey) {
    Exposition exposition;
    exposition.samplingIntervalSeconds = intervalSeconds_;
    const double now = dependencies_.unixTime();
    std::lock_guard guard(lock_);
    auto scraper = std::find_if(scrapers_.begin(), scrapers_.end(),
                                [&](const Scraper& s) { return s.key == scraperKey; });
    if (scraper == scrapers_.end()) {
        if (scrapers_.size() >= kMaximumScrapers) {
            scrapers_.erase(
                std::min_element(scrapers_.begin(), scrapers_.end(),
                                 [](const Scraper& a, const Scraper& b) { return a.lastSeen < b.lastSeen; }));
        }
        scrapers_.push_back(Scraper{scraperKey, 0, {}});
        scraper = scrapers_.end() - 1;
    }
    scraper->lastSeen = ++scrapeCounter_;
    exposition.volumes.reserve(volumes_.size());
    for (const auto& volume : volumes_) {
        VolumeFigures figures;
        figures.labels = volume->labels;
        figures.readBytes = volume->latest.bytesRead();
        figures.writtenBytes = volume->latest.bytesWritten();
        figures.reads = volume->latest.readsCompleted;
        figures.writes = volume->latest.writesCompleted;
        figures.load = volume->load;
        const auto found = scraper->peaks.find(volume->id);
        const Peaks& peak = found != scraper->peaks.end() ? found->second : volume->last;
        figures.readPeak = peak.read;
        figures.writePeak = peak.write;
        figures.readAwaitPeakSeconds = peak.readAwait;
        figures.writeAwaitPeakSeconds = peak.writeAwait;
        figures.queueDepthPeak = peak.queueDepth;
        figures.readHistogram = volume->readHistogram;
        figures.writeHistogram = volume->writeHistogram;
        figures.readAwaitHistogram = volume->readAwaitHistogram;
        figures.writeAwaitHistogram = volume->writeAwaitHistogram;
        if (volume->smart) {
            figures.smart = volume->smart;
            figures.smart->ageSeconds = std::max(0.0, now - volume->smart->refreshedAt);
            figures.labels.wwn = volume->smart->drive.identity.wwn;
            figures.labels.serial = volume->smart->drive.identity.serial;
        }
        exposition.volumes.push_back(std::move(figures));
    }
    scraper->peaks.clear();
    return exposition;
}

std::size_t MetricsCollector::volumeCount() const {
    std::lock_guard guard(lock_);
    return volumes_.size();
}

std::size_t MetricsCollector::scraperCount() const {
    std::lock_guard guard(lock_);
    return scrapers_.size();
}

}  // namespace vantorix::exporter
