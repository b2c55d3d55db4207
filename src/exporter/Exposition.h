#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "health/DriveHealth.h"
#include "health/HealthHistory.h"
#include "monitor/DeviceLoad.h"

namespace vantorix::exporter {

// One figure of each sampling interval counted into fixed buckets: `Bounds` holds their upper
// bounds in ascending order, and a value on a bound falls in that bound's bucket.
template <const auto& Bounds>
struct BucketHistogram {
    std::array<std::uint64_t, Bounds.size() + 1> counts{};  // per bucket, not cumulative; last is +Inf
    double sum = 0;
    std::uint64_t count = 0;

    void observe(double value) {
        const auto bound = std::lower_bound(Bounds.begin(), Bounds.end(), value);
        ++counts[static_cast<std::size_t>(bound - Bounds.begin())];
        sum += value;
        ++count;
    }
};

// Throughput in bytes per second: 1, 2.5 and 5 of every decade from 1 MB/s to 10 GB/s.
inline constexpr std::array<double, 13> kThroughputBounds{1e6,   2.5e6, 5e6, 1e7,   2.5e7, 5e7, 1e8,
                                                          2.5e8, 5e8,   1e9, 2.5e9, 5e9,   1e10};
using ThroughputHistogram = BucketHistogram<kThroughputBounds>;

// Await in seconds: 50 µs to 10 s.
inline constexpr std::array<double, 17> kAwaitBounds{50e-6, 100e-6, 250e-6, 500e-6, 1e-3, 2.5e-3, 5e-3, 10e-3, 25e-3,
                                                     50e-3, 0.1,    0.25,   0.5,    1,    2.5,    5,    10};
using AwaitHistogram = BucketHistogram<kAwaitBounds>;

// What the descriptor of a volume says, as the labels of its info metric.
struct VolumeLabels {
    std::string device;      // block device name, "vda1"
    std::string mountPoint;  // where the volume's file system is mounted
    std::string fileSystem;
    std::string connection;
    std::string linkSpeed;
    std::string vendor;
    std::string model;
    // The drive's identity from its SMART data, so that traffic and health join across renames;
    // empty until the drive has answered.
    std::string wwn;
    std::string serial;
};

// A drive's SMART figures from its last answer, with who the drive is; each figure is absent when
// the drive does not report it.
struct SmartFigures {
    health::DriveReading drive;   // identity (WWN, serial), verdict, figures, critical warning, temperature limit
    std::optional<bool> capable;  // whether the device supports SMART
    // Of each growth figure with a baseline in the drive-health history; empty without a history.
    std::vector<health::Growth> growth;
    double refreshedAt = 0;  // Unix time of the smartctl run these came from
    double ageSeconds = 0;   // time since then, at the scrape
};

struct VolumeFigures {
    VolumeLabels labels;
    // The block device's cumulative counters; they wrap modulo 2^64.
    std::uint64_t readBytes = 0;
    std::uint64_t writtenBytes = 0;
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    // The request counters (times, discards, flushes, in flight): the first reading's, then the
    // sum of every interval's differences, so the kernel's 32-bit time fields never wrap here.
    LoadCounters load;
    // The highest figure of one sampling interval since the scraper's previous scrape. An await
    // is absent when no interval completed a request of its direction; the queue depth when no
    // interval has passed.
    double readPeak = 0;
    double writePeak = 0;
    std::optional<double> readAwaitPeakSeconds;
    std::optional<double> writeAwaitPeakSeconds;
    std::optional<double> queueDepthPeak;
    ThroughputHistogram readHistogram;
    ThroughputHistogram writeHistogram;
    // Each interval's await, observed only when the interval completed a request of the direction.
    AwaitHistogram readAwaitHistogram;
    AwaitHistogram writeAwaitHistogram;
    std::optional<SmartFigures> smart;
};

struct Exposition {
    double samplingIntervalSeconds = 1;
    std::vector<VolumeFigures> volumes;
};

enum class ExpositionFormat { prometheusText, openMetrics };

// OpenMetrics when the Accept header asks for application/openmetrics-text (with a non-zero q),
// the Prometheus text format otherwise.
ExpositionFormat negotiateFormat(std::string_view accept);
std::string_view contentType(ExpositionFormat format);

std::string render(const Exposition& exposition, ExpositionFormat format);

// A label value as the exposition carries it: valid UTF-8 (each ill-formed sequence of the bytes
// becomes U+FFFD, as labels and paths are bytes), with backslash, double quote and line feed escaped.
std::string escapeLabelValue(std::string_view value);

// For HTTP header fields: an ASCII comparison that ignores case.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace vantorix::exporter
