#include "charts/LatencyExport.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "monitor/DeviceLoad.h"
#include "text/Messages.h"
#include "text/SystemError.h"
#include "util/Uuid.h"

namespace vantorix {
namespace {

void appendField(std::string& out, const std::optional<double>& value) {
    out += ',';
    if (value) out += ChartExportSupport::csvNumberText(*value);
}

}  // namespace

std::string LatencyExport::csvPath(const std::string& chartCsvPath) {
    std::filesystem::path path(chartCsvPath);
    const std::string extension = path.has_extension() ? path.extension().string() : ".csv";
    return path.replace_filename(path.stem().string() + "-latency" + extension).string();
}

std::string LatencyExport::csvText(const SampleWindow& samples) {
    std::string out =
        "timestamp,read_await_ms,write_await_ms,utilization_percent,average_queue_depth,in_flight,discards_per_sec,"
        "flushes_per_sec";
    out.reserve(out.size() + samples.size() * 64);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const DiskSample& sample = samples[i];
        const LoadFigures figures = loadFigures(sample.load);
        const bool timed = sample.load.wall.count() > 0;
        out += '\n';
        out += ChartExportSupport::csvTimestampText(sample.timestamp);
        appendField(out, figures.readAwaitMilliseconds);
        appendField(out, figures.writeAwaitMilliseconds);
        appendField(out, figures.utilization ? std::optional(*figures.utilization * 100) : std::nullopt);
        appendField(out, figures.averageQueueDepth);
        out += fmt::format(",{}", figures.inFlight);
        appendField(out, timed ? std::optional(figures.discardsPerSecond) : std::nullopt);
        appendField(out, timed ? std::optional(figures.flushesPerSecond) : std::nullopt);
    }
    return out;
}

std::optional<std::string> LatencyExport::writeWhole(const std::string& path, std::string_view contents) {
    const auto failure = [&path](int error) { return ChartExportSupport::writeFailureText(path, error); };
    if (auto refused = ChartExportSupport::specialFileRefusal(path)) return refused;
    // Hidden, beside the file it becomes, and named afresh, so that it is nobody else's file.
    std::filesystem::path unfinished(path);
    unfinished.replace_filename("." + unfinished.filename().string() + "." + Uuid::make().text() + ".tmp");
    const std::string unfinishedPath = unfinished.string();
    const int fd = ::open(unfinishedPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) return failure(errno);
    const auto abandon = [&](int error) {
        ::unlink(unfinishedPath.c_str());
        return failure(error);
    };
    if (const int error = ChartExportSupport::writeAll(fd, contents.data(), contents.size()); error != 0) {
        ::close(fd);
        return abandon(error);
    }
    if (::close(fd) != 0) return abandon(errno);
    if (::rename(unfinishedPath.c_str(), path.c_str()) != 0) return abandon(errno);
    return std::nullopt;
}

std::optional<ChartExportSupport::Outcome> LatencyExport::exportChart(
    const SampleWindow& samples, std::int64_t sampleIntervalMs, const std::string& csvPath,
    const ChartExportSupport::PNGRenderer& renderPNG) {
    auto outcome = ChartExportSupport::exportChart(samples, sampleIntervalMs, csvPath, renderPNG);
    if (!outcome || !outcome->saved) return outcome;
    const std::string latencyPath = LatencyExport::csvPath(csvPath);
    if (auto failure = writeWhole(latencyPath, csvText(samples))) {
        return ChartExportSupport::Outcome{false, outcome->text + "\n" + text::chartExportFailed(*failure)};
    }
    outcome->text += "\n" + text::latencyExportSaved(latencyPath);
    return outcome;
}

}  // namespace vantorix
