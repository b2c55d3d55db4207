#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "benchmark/PerformanceResult.h"
#include "smart/DiskSMARTInfo.h"
#include "volumes/DiskVolumeDescriptor.h"

namespace vantorix::report {

// The self-contained HTML report of one run, with its inline SVG chart, in the current language.

// The text as valid UTF-8 (U+FFFD for what is not) with "&", '"', "'", "<" and ">" replaced by
// their entities.
std::string htmlEscaped(std::string_view text);

// The shortest decimal that reads back as the same double, with ".0" on whole numbers ("2400.0").
std::string shortestDecimal(double value);

// "Vantorix-Performance-" and the finish time in UTC as "yyyyMMdd-HHmmss".
std::string reportBaseName(std::chrono::system_clock::time_point finishedAt);

struct ChartLabels {
    std::string timeAxis;
    std::string throughputAxis;
    std::string writeLegend;
    std::string readLegend;
    std::string empty;
    std::string accessible;

    // The labels in the current language.
    static ChartLabels current();
};

// The 2400 × 1000 chart of the sequential write and read throughput.
std::string chartSVG(const std::vector<TimelineSample>& timeline, const ChartLabels& labels);

// The SMART card: the summary's status and capability, then its attributes.
std::string smartSection(const std::optional<DiskSMARTInfo>& smart);

// The sustained-write test's chart: the speed of each step against the data written, the cliff
// marked, and the drive's temperature on a right-hand axis when it was sampled
// (SustainedReport.cpp).
std::string sustainedChartSVG(const SustainedWriteFigures& figures);
// Its cards: the figures, the chart and the table of points.
std::string sustainedSection(const SustainedWriteFigures& figures);

std::string reportHTML(const PerformanceResult& result, const DiskVolumeDescriptor& volume);

}  // namespace vantorix::report
