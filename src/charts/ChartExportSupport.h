#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "charts/ChartDataExportError.h"
#include "charts/SampleWindow.h"
#include "util/Result.h"

namespace vantorix {

// The chart export: the monitor's whole history as CSV text, and everything about the
// 3840 × 2160 chart picture that needs no pixels (geometry, reduction to points, axis ticks,
// texts, totals). The drawing itself lives in the render module. Everything here depends on the
// samples and the sampling interval alone, never on the on-screen graph or its zoom.
//
// Geometry uses the picture's own coordinates: pixels, origin at the bottom left, y upwards.
struct ChartExportSupport {
    static constexpr int imageWidth = 3840;
    static constexpr int imageHeight = 2160;

    struct DownsampledPoint {
        std::int64_t index = 0;  // index in the sample list
        double readSpeed = 0;    // bytes per second
        double writeSpeed = 0;

        friend bool operator==(const DownsampledPoint&, const DownsampledPoint&) = default;
    };

    struct AxisTick {
        double value = 0;     // milliseconds on the time axis, bytes per second on the throughput axis
        double position = 0;  // 0 … 1 along the axis from its start

        friend bool operator==(const AxisTick&, const AxisTick&) = default;
    };

    struct Rect {
        double x = 0;  // left
        double y = 0;  // bottom
        double width = 0;
        double height = 0;

        friend bool operator==(const Rect&, const Rect&) = default;
    };

    struct Totals {
        std::uint64_t readBytes = 0;   // saturating at 2^64 − 1
        std::uint64_t writeBytes = 0;  // saturating at 2^64 − 1
        double samplingTimeMs = 0;     // t × (n − 1)
        double averageSpeed = 0;       // (read + write) per second of sampling time; 0 without time
    };

    // 1000 ÷ t, or 0 for an interval below 1 ms.
    static double speedFactor(std::int64_t sampleIntervalMs);

    // The CSV file's text: a header line and one line per sample, joined by "\n", no final break.
    static std::string csvText(const SampleWindow& samples, std::int64_t sampleIntervalMs);
    // A computed CSV field: en_US_POSIX decimal, no grouping, 0 to 6 fraction digits.
    static std::string csvNumberText(double value);
    // A sample's time as the CSV writes it: "2025-03-01T08:15:30.125Z", ISO 8601 in UTC with
    // milliseconds.
    static std::string csvTimestampText(std::chrono::system_clock::time_point time);

    // The plot's rectangle in a picture of the given size: 220 px left, 160 px right and top,
    // 240 px bottom.
    static Rect plotRect(int width, int height);
    // How many points the picture draws at most: the plot's whole pixels across, at least 512.
    static std::int64_t pointLimit(const Rect& plot);
    // The samples as at most `limit` points: every sample when they fit; otherwise the first and
    // last samples exactly and, between them, bins that keep the peak speeds of their samples.
    static std::vector<DownsampledPoint> reducedPoints(const SampleWindow& samples, std::int64_t sampleIntervalMs,
                                                       std::int64_t limit);

    // A "nice" step near x: 1, 2, 5 or 10 times a power of ten.
    static double niceStep(double x);
    // Ticks from 0 to the highest speed among the points (at least 1 B/s), which is the top.
    static std::vector<AxisTick> throughputTicks(const std::vector<DownsampledPoint>& points);
    // Ticks of elapsed time from the first sample (0, left) to the last (1, right).
    static std::vector<AxisTick> timeTicks(std::int64_t sampleCount, std::int64_t sampleIntervalMs);

    static Totals totals(const SampleWindow& samples, std::int64_t sampleIntervalMs);

    // A span of time for the picture's labels and summary: "250 ms", "1.5 s", "2 min", "1.25 h"
    // (Chinese units 毫秒, 秒, 分钟, 小时), numbers in en_US_POSIX with up to two fraction digits.
    static std::string durationText(double milliseconds);
    // The summary box: sampling time, average throughput, cumulative read and write.
    static std::array<std::string, 4> summaryLines(const Totals& totals);
    static std::string readLegendText();
    static std::string writeLegendText();
    static std::string waitingText();

    // ---- the export flow, apart from its dialog ----

    // Makes the PNG data of the chart for these samples and interval.
    using PNGRenderer =
        std::function<Result<std::vector<std::uint8_t>, ChartDataExportError>(const SampleWindow&, std::int64_t)>;

    // "Vantorix-" + local time "yyyyMMdd-HHmmss" + ".csv".
    static std::string suggestedFileName(std::chrono::system_clock::time_point now);
    // The CSV path with its extension replaced by (or, without one, extended with) "png".
    static std::string pngPath(const std::string& csvPath);
    // "Could not write the file “PATH”: REASON", in the user's language.
    static std::string writeFailureText(const std::string& path, const std::string& reason);
    // The same with the system's text for `error`.
    static std::string writeFailureText(const std::string& path, int error);
    // The failure text when something other than a regular file or a folder is at `path` (a
    // named pipe, a device): such a thing is never written. A folder is left to the caller's
    // open() or rename(), which names it.
    static std::optional<std::string> specialFileRefusal(const std::string& path);
    // Writes all `size` bytes to `fd`, going on after interruptions; 0, or the system's error.
    static int writeAll(int fd, const char* data, std::size_t size);
    struct Outcome {
        bool saved = false;  // both files written
        std::string text;    // what the user is told: where the files went, or why the export failed

        friend bool operator==(const Outcome&, const Outcome&) = default;
    };

    // Renders the PNG, writes the CSV and then the PNG (replacing existing files) and returns the
    // outcome. Nothing happens, and nothing is returned, with fewer than two samples. A failure
    // stops the flow where it happens: a CSV already written stays.
    static std::optional<Outcome> exportChart(const SampleWindow& samples, std::int64_t sampleIntervalMs,
                                              const std::string& csvPath, const PNGRenderer& renderPNG);
};

}  // namespace vantorix
