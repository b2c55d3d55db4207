#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "benchmark/PerformanceResult.h"
#include "health/HealthHistory.h"
#include "platform/BlockDevice.h"

namespace vantorix {

// A figure falling by more than this, in per cent, is more than run-to-run noise.
inline constexpr double kDropPercent = 15;

// One figure of a result as runs of the same kind compare it; higher is better for all of them.
struct ComparableFigure {
    std::string name;  // the key the history stores
    double value = 0;
};

// The kind a run is compared within: "standard", "standardDirect", "queueDepth".
std::string runKind(const TestMode& mode);
// The figures of a result that the history keeps, in the order they are shown.
std::vector<ComparableFigure> comparableFigures(const PerformanceResult& result);
// The title of a figure's key in the current language ("Average Write Speed", "SEQ1M Q8T1 Read").
std::string figureTitle(const std::string& name);
// The value of a figure's key as the result shows it ("327.2 MB/s", "405,406").
std::string figureValueText(const std::string& name, double value);
// "+3.2%", "−21%": the change with its sign, one fraction digit below 10%.
std::string changeText(double percent);
// "Average Write Speed is 21% below the previous run's (Nov 26, 2026, 5:44:02 AM)." in the current language.
std::string dropWarning(const FigureChange& change, std::chrono::system_clock::time_point previousFinishedAt);
// Every drop's warning, in the order of the figures.
std::vector<std::string> dropWarnings(const std::optional<ResultComparison>& comparison);

// The value with its change since the previous run of the same kind, when there was one:
// "327.2 MB/s (−21%)".
std::string valueWithChange(std::string value, const PerformanceResult& result, const std::string& figure);
// The warning's symbol when one of the figures dropped since the previous run, else `icon`.
const char* iconWithDrop(const char* icon, const PerformanceResult& result, std::initializer_list<std::string> figures);

// The history's record of a finished run, and the figures of one read back.
health::BenchmarkRun benchmarkRun(const PerformanceResult& result, const std::string& version);
std::vector<ComparableFigure> storedFigures(const health::BenchmarkRun& run);
std::vector<PhaseTraffic> storedPageCheck(const health::BenchmarkRun& run);
// The result against a stored run, figure by figure (figures the stored run lacks are left out).
ResultComparison compareWith(const std::vector<ComparableFigure>& current, const health::BenchmarkRun& previous);

// The drive behind a block device: its world-wide name when the kernel gives an NAA one, else its
// model and serial, else for a loop device the file it is made of.
health::DriveIdentity driveIdentity(const BlockDevice& device);

// The last stored run of `kind` among `runs` (oldest first) finished before `beforeMs`, if any.
const health::BenchmarkRun* previousRun(const std::vector<health::BenchmarkRun>& runs, const std::string& kind,
                                        std::int64_t beforeMs);

}  // namespace vantorix
