#include "exporter/Exposition.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

#include "text/Trim.h"
#include "text/Utf8.h"

namespace vantorix::exporter {

namespace {

// A sample value: integers exactly, other numbers in the shortest form that reads back the same.
std::string number(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    if (std::fabs(value) < 9.007199254740992e15 && value == std::floor(value)) {
        return fmt::format("{}", static_cast<long long>(value));
    }
    return fmt::format("{}", value);
}

enum class Type { counter, gauge, histogram, info };

// Writes one metric family at a time in either format: the metadata, then its samples.
class Writer {
public:
    explicit Writer(ExpositionFormat format) : format_(format) { out_.reserve(16384); }

    // `name` is the family's name as the Prometheus text format spells it (counters with their
    // "_total", info metrics with their "_info"); OpenMetrics names the family without them.
    void family(std::string_view name, Type type, std::string_view help) {
        std::string_view familyName = name;
        std::string_view typeName;
        switch (type) {
            case Type::counter:
                typeName = "counter";
                if (open()) familyName.remove_suffix(std::string_view("_total").size());
                break;
            case Type::gauge: typeName = "gauge"; break;
            case Type::histogram: typeName = "histogram"; break;
            case Type::info:
                typeName = open() ? "info" : "gauge";
                if (open()) familyName.remove_suffix(std::string_view("_info").size());
                break;
        }
        fmt::format_to(std::back_inserter(out_), "# HELP {} {}\n# TYPE {} {}\n", familyName, help, familyName,
                       typeName);
    }

    void sample(std::string_view name, std::string_view labels, double value) {
        out_ += name;
        if (!labels.empty()) {
            out_ += '{';
            out_ += labels;
            out_ += '}';
        }
        out_ += ' ';
        out_ += number(value);
        out_ += '\n';
    }

    std::string finish() {
        if (open()) out_ += "# EOF\n";
        return std::move(out_);
    }

private:
    bool open() const { return format_ == ExpositionFormat::openMetrics; }
    ExpositionFormat format_;
    std::string out_;
};

std::string label(std::string_view name, std::string_view value) {
    return fmt::format("{}=\"{}\"", name, escapeLabelValue(value));
}

std::string volumeLabels(const VolumeLabels& labels) {
    return label("device", labels.device) + "," + label("mountpoint", labels.mountPoint);
}

}  // namespace

std::string escapeLabelValue(std::string_view value) {
    std::string result;
    result.reserve(value.size());
    for (const char c : text::lossyUtf8(value)) {
        switch (c) {
            case '\\': result += "\\\\"; break;
            case '"': result += "\\\""; break;
            case '\n': result += "\\n"; break;
            default: result += c;
        }
    }
    return result;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

ExpositionFormat negotiateFormat(std::string_view accept) {
    while (!accept.empty()) {
        const auto comma = accept.find(',');
        const std::string_view range = accept.substr(0, comma);
        accept = comma == std::string_view::npos ? std::string_view() : accept.substr(comma + 1);
        const auto semicolon = range.find(';');
        if (!equalsIgnoringCase(text::trimmed(range.substr(0, semicolon)), "application/openmetrics-text")) continue;
        double quality = 1;
        std::string_view parameters = semicolon == std::string_view::npos ? std::string_view()
                                                                          : range.substr(semicolon + 1);
        while (!parameters.empty()) {
            const auto next = parameters.find(';');
            const auto parameter = text::trimmed(parameters.substr(0, next));
            parameters = next == std::string_view::npos ? std::string_view() : parameters.substr(next + 1);
            if (parameter.size() > 2 && (parameter[0] == 'q' || parameter[0] == 'Q') && parameter[1] == '=') {
                quality = std::strtod(std::string(parameter.substr(2)).c_str(), nullptr);
            }
        }
        if (quality > 0) return ExpositionFormat::openMetrics;
    }
    return ExpositionFormat::prometheusText;
}

std::string_view contentType(ExpositionFormat format) {
    return format == ExpositionFormat::openMetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                                   : "text/plain; version=0.0.4; charset=utf-8";
}

namespace {

using Volumes = std::vector<VolumeFigures>;

void writeVolumeInfo(Writer& w, const Volumes& volumes) {
    w.family("vantorix_volume_info", Type::info, "Descriptor of a watched volume.");
    for (const auto& volume : volumes) {
        const auto& l = volume.labels;
        w.sample("vantorix_volume_info",
                 fmt::format("{},{},{},{},{},{},{},{},{}", label("device", l.device), label("mountpoint", l.mountPoint),
                             label("filesystem", l.fileSystem), label("connection", l.connection),
                             label("link_speed", l.linkSpeed), label("vendor", l.vendor), label("model", l.model),
                             label("wwn", l.wwn), label("serial", l.serial)),
                 1);
    }
}

// The block device's counters and peaks; `keys` holds each volume's labels.
void writeTraffic(Writer& w, const Volumes& volumes, const std::vector<std::string>& keys) {
    using Field = std::function<double(const VolumeFigures&)>;
    const auto perVolume = [&](std::string_view name, Type type, std::string_view help, const Field& field) {
        w.family(name, type, help);
        for (std::size_t i = 0; i < volumes.size(); ++i) w.sample(name, keys[i], field(volumes[i]));
    };
    perVolume("vantorix_volume_read_bytes_total", Type::counter, "Bytes read from the volume's block device.",
              [](const VolumeFigures& v) { return static_cast<double>(v.readBytes); });
    perVolume("vantorix_volume_written_bytes_total", Type::counter, "Bytes written to the volume's block device.",
              [](const VolumeFigures& v) { return static_cast<double>(v.writtenBytes); });
    perVolume("vantorix_volume_reads_completed_total", Type::counter,
              "Read operations completed by the volume's block device.",
              [](const VolumeFigures& v) { return static_cast<double>(v.reads); });
    perVolume("vantorix_volume_writes_completed_total", Type::counter,
              "Write operations completed by the volume's block device.",
              [](const VolumeFigures& v) { return static_cast<double>(v.writes); });
    const auto milliseconds = [](std::uint64_t LoadCounters::*field) {
        return [field](const VolumeFigures& v) { return static_cast<double>(v.load.*field) / 1000; };
    };
    perVolume("vantorix_volume_read_time_seconds_total", Type::counter,
              "Time spent by the volume's completed reads, summed over requests, queueing included.",
              milliseconds(&LoadCounters::readMilliseconds));
    perVolume("vantorix_volume_write_time_seconds_total", Type::counter,
              "Time spent by the volume's completed writes, summed over requests, queueing included.",
              milliseconds(&LoadCounters::writeMilliseconds));
    perVolume("vantorix_volume_io_time_seconds_total", Type::counter,
              "Time the volume's block device had at least one request in flight.",
              milliseconds(&LoadCounters::busyMilliseconds));
    perVolume("vantorix_volume_io_time_weighted_seconds_total", Type::counter,
              "Time spent by the volume's requests in flight, summed over requests; its rate is the average "
              "queue depth.",
              milliseconds(&LoadCounters::weightedMilliseconds));
    perVolume("vantorix_volume_io_now", Type::gauge,
              "Requests sent to the volume's block device and not yet completed, at the last reading.",
              [](const VolumeFigures& v) { return static_cast<double>(v.load.inFlight); });
    perVolume("vantorix_volume_discards_completed_total", Type::counter,
              "Discard requests completed by the volume's block device (0 before Linux 4.18).",
              [](const VolumeFigures& v) { return static_cast<double>(v.load.discardsCompleted); });
    perVolume("vantorix_volume_flush_requests_total", Type::counter,
              "Flush requests completed by the volume's block device (0 before Linux 5.5).",
              [](const VolumeFigures& v) { return static_cast<double>(v.load.flushesCompleted); });
    perVolume("vantorix_volume_read_peak_bytes_per_second", Type::gauge,
              "Highest read throughput over one sampling interval since this scraper's previous scrape.",
              [](const VolumeFigures& v) { return v.readPeak; });
    perVolume("vantorix_volume_write_peak_bytes_per_second", Type::gauge,
              "Highest write throughput over one sampling interval since this scraper's previous scrape.",
              [](const VolumeFigures& v) { return v.writePeak; });
}

// The highest await and queue depth of one sampling interval since this scraper's previous
// scrape. A series without a figure is left out, and a family without a series too.
void writeLoadPeaks(Writer& w, const Volumes& volumes, const std::vector<std::string>& keys) {
    constexpr std::string_view await = "vantorix_volume_await_peak_seconds";
    bool any = false;
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        for (const auto& [direction, peak] : {std::pair{"read", volumes[i].readAwaitPeakSeconds},
                                              std::pair{"write", volumes[i].writeAwaitPeakSeconds}}) {
            if (!peak) continue;
            if (!any) {
                w.family(await, Type::gauge,
                         "Highest mean time per completed request (queueing included) over one sampling interval "
                         "since this scraper's previous scrape; absent when no interval completed a request of "
                         "the direction.");
            }
            any = true;
            w.sample(await, keys[i] + "," + label("direction", direction), *peak);
        }
    }
    constexpr std::string_view depth = "vantorix_volume_queue_depth_peak";
    any = false;
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        if (!volumes[i].queueDepthPeak) continue;
        if (!any) {
            w.family(depth, Type::gauge,
                     "Highest average number of requests in flight over one sampling interval since this "
                     "scraper's previous scrape.");
        }
        any = true;
        w.sample(depth, keys[i], *volumes[i].queueDepthPeak);
    }
}

// One histogram family with a series per volume and direction; its buckets are cumulative.
template <const auto& Bounds>
void writeHistograms(Writer& w, std::string_view histogram, std::string_view help, const Volumes& volumes,
                     const std::vector<std::string>& keys, BucketHistogram<Bounds> VolumeFigures::*read,
                     BucketHistogram<Bounds> VolumeFigures::*write) {
    w.family(histogram, Type::histogram, help);
    const std::string bucket = std::string(histogram) + "_bucket";
    const std::string sum = std::string(histogram) + "_sum";
    const std::string count = std::string(histogram) + "_count";
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        for (const auto& [direction, h] :
             {std::pair{"read", &(volumes[i].*read)}, std::pair{"write", &(volumes[i].*write)}}) {
            const std::string labels = keys[i] + "," + label("direction", direction);
            std::uint64_t cumulative = 0;
            for (std::size_t b = 0; b < h->counts.size(); ++b) {
                cumulative += h->counts[b];
                const std::string le = b < Bounds.size() ? number(Bounds[b]) : std::string("+Inf");
                w.sample(bucket, labels + "," + label("le", le), static_cast<double>(cumulative));
            }
            w.sample(sum, labels, h->sum);
            w.sample(count, labels, static_cast<double>(h->count));
        }
    }
}

// How a health figure is exported: its family, type and help, and the factor from the drive's unit
// to the metric's base unit.
struct FigureMetric {
    health::Figure figure;
    std::string_view name;
    Type type;
    std::string_view help;
    double scale = 1;
};

constexpr std::array<FigureMetric, health::kFigureCount> kFigureMetrics{{
    {health::Figure::temperature, "vantorix_smart_temperature_celsius", Type::gauge, "Drive temperature."},
    {health::Figure::powerOnHours, "vantorix_smart_power_on_seconds", Type::gauge,
     "Time the drive has been powered on.", 3600},
    {health::Figure::percentageUsed, "vantorix_smart_percentage_used_ratio", Type::gauge,
     "Share of the drive's rated endurance used, by its own estimate (may exceed 1).", 0.01},
    {health::Figure::reallocatedSectors, "vantorix_smart_reallocated_sectors", Type::gauge,
     "Sectors the drive has reallocated."},
    {health::Figure::pendingSectors, "vantorix_smart_pending_sectors", Type::gauge,
     "Unstable sectors waiting to be remapped."},
    {health::Figure::uncorrectableSectors, "vantorix_smart_uncorrectable_sectors", Type::gauge,
     "Sectors the drive could not read or correct."},
    {health::Figure::crcErrors, "vantorix_smart_crc_errors_total", Type::counter,
     "Transfers to or from the drive that failed their interface checksum."},
    {health::Figure::mediaErrors, "vantorix_smart_media_errors_total", Type::counter,
     "Unrecovered data integrity errors the drive reported."},
    {health::Figure::unsafeShutdowns, "vantorix_smart_unsafe_shutdowns_total", Type::counter,
     "Times the drive lost power without being told first."},
    {health::Figure::bytesWritten, "vantorix_smart_written_bytes_total", Type::counter,
     "Bytes the host wrote to the drive over its life."},
    {health::Figure::bytesRead, "vantorix_smart_read_bytes_total", Type::counter,
     "Bytes the host read from the drive over its life."},
}};

// The drives' SMART figures, each series with the drive's wwn and serial beside the volume's
// labels: a family appears only when some volume has a value for it.
void writeSmart(Writer& w, const Volumes& volumes, const std::vector<std::string>& keys) {
    std::vector<std::string> drives(volumes.size());
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        if (!volumes[i].smart) continue;
        const auto& identity = volumes[i].smart->drive.identity;
        drives[i] = keys[i] + "," + label("wwn", identity.wwn) + "," + label("serial", identity.serial);
    }
    using SmartField = std::function<std::optional<double>(const SmartFigures&)>;
    const auto smart = [&](std::string_view name, Type type, std::string_view help, const SmartField& field) {
        bool any = false;
        for (std::size_t i = 0; i < volumes.size(); ++i) {
            if (!volumes[i].smart) continue;
            const auto value = field(*volumes[i].smart);
            if (!value) continue;
            if (!any) w.family(name, type, help);
            any = true;
            w.sample(name, drives[i], *value);
        }
    };
    const auto flag = [](const std::optional<bool>& value) -> std::optional<double> {
        if (!value) return std::nullopt;
        return *value ? 1.0 : 0.0;
    };
    smart("vantorix_smart_passed", Type::gauge,
          "1 when the drive's SMART overall self-assessment passed, 0 when it failed.",
          [&](const SmartFigures& s) { return flag(s.drive.snapshot.passed); });
    smart("vantorix_smart_capable", Type::gauge, "1 when the drive supports SMART.",
          [&](const SmartFigures& s) { return flag(s.capable); });
    for (const auto& metric : kFigureMetrics) {
        smart(metric.name, metric.type, metric.help, [&metric](const SmartFigures& s) -> std::optional<double> {
            const auto& value = s.drive.snapshot[metric.figure];
            if (!value) return std::nullopt;
            return *value * metric.scale;
        });
    }
    smart("vantorix_smart_temperature_limit_celsius", Type::gauge,
          "The highest temperature the drive is specified to work at.",
          [](const SmartFigures& s) { return s.drive.temperatureLimit; });
    smart("vantorix_smart_critical_warning", Type::gauge,
          "NVMe critical warning bits (1 spare, 2 temperature, 4 reliability, 8 read-only, 16 backup); 0 when "
          "none is set.",
          [](const SmartFigures& s) { return s.drive.criticalWarning; });
    smart("vantorix_smart_refresh_timestamp_seconds", Type::gauge, "When the drive's SMART data was last read.",
          [](const SmartFigures& s) -> std::optional<double> { return s.refreshedAt; });
    smart("vantorix_smart_data_age_seconds", Type::gauge,
          "Time since the drive's SMART data was read; an idle drive is not asked again.",
          [](const SmartFigures& s) -> std::optional<double> { return s.ageSeconds; });

    constexpr std::string_view growth = "vantorix_smart_growth_since_baseline";
    bool any = false;
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        if (!volumes[i].smart) continue;
        for (const auto& g : volumes[i].smart->growth) {
            if (!any) {
                w.family(growth, Type::gauge,
                         "How far a count a healthy drive never raises has grown since the drive's first reading "
                         "or its last acknowledgement.");
            }
            any = true;
            w.sample(growth, drives[i] + "," + label("attribute", health::figureName(g.figure)), g.amount());
        }
    }
}

}  // namespace

std::string render(const Exposition& exposition, ExpositionFormat format) {
    Writer w(format);
    const auto& volumes = exposition.volumes;
    std::vector<std::string> keys;
    keys.reserve(volumes.size());
    for (const auto& volume : volumes) keys.push_back(volumeLabels(volume.labels));

    w.family("vantorix_sampling_interval_seconds", Type::gauge,
             "Interval between two readings of the block-layer counters.");
    w.sample("vantorix_sampling_interval_seconds", "", exposition.samplingIntervalSeconds);
    w.family("vantorix_volumes", Type::gauge, "Number of volumes watched.");
    w.sample("vantorix_volumes", "", static_cast<double>(volumes.size()));
    writeVolumeInfo(w, volumes);
    writeTraffic(w, volumes, keys);
    writeLoadPeaks(w, volumes, keys);
    writeHistograms(w, "vantorix_volume_interval_throughput_bytes_per_second",
                    "Throughput of the volume over each sampling interval.", volumes, keys,
                    &VolumeFigures::readHistogram, &VolumeFigures::writeHistogram);
    writeHistograms(w, "vantorix_volume_interval_await_seconds",
                    "Mean time per completed request (queueing included) over each sampling interval that "
                    "completed a request of the direction.",
                    volumes, keys, &VolumeFigures::readAwaitHistogram, &VolumeFigures::writeAwaitHistogram);
    writeSmart(w, volumes, keys);
    return w.finish();
}

}  // namespace vantorix::exporter
