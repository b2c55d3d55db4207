#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "charts/ChartExportSupport.h"
#include "charts/SampleWindow.h"

namespace vantorix {

// The chart export's second CSV, "<name>-latency.csv" beside the chart's CSV and PNG: the request
// figures of every sample of the history (read and write await, busy share, average queue depth,
// requests in flight, discards and flushes per second), each from that sample's own counters.
struct LatencyExport {
    // The chart CSV's path with "-latency" before its extension: "run.csv" → "run-latency.csv";
    // "run" → "run-latency.csv".
    static std::string csvPath(const std::string& chartCsvPath);

    // A header line and one line per sample, joined by "\n", no final break. Timestamps as in the
    // chart's CSV, numbers as its computed fields (csvNumberText); an await of a sample without
    // completions of that direction, and the figures of a sample of no time, are empty fields.
    static std::string csvText(const SampleWindow& samples);

    // Writes `contents` to `path` whole or not at all: into a new file beside it, which replaces
    // `path` once written and is removed when anything fails, so that no file written halfway is
    // left. What is there and is not a regular file (a named pipe, a device) is refused and left
    // alone. The reason in the user's language on failure.
    static std::optional<std::string> writeWhole(const std::string& path, std::string_view contents);

    // The chart export (ChartExportSupport::exportChart), then the latency CSV beside its CSV. The
    // outcome names all three files; when the latency CSV cannot be written, it names the two that
    // were and says why the third was not. Nothing happens, and nothing is returned, with fewer
    // than two samples.
    static std::optional<ChartExportSupport::Outcome> exportChart(const SampleWindow& samples,
                                                                  std::int64_t sampleIntervalMs,
                                                                  const std::string& csvPath,
                                                                  const ChartExportSupport::PNGRenderer& renderPNG);
};

}  // namespace vantorix
