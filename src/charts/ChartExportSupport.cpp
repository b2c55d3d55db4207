#include "charts/ChartExportSupport.h"

#include <fcntl.h>
#include <fmt/compile.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <limits>
#include <system_error>

#include "text/Formats.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/SystemError.h"
#include "util/Saturating.h"

namespace vantorix {
namespace {

constexpr std::uint64_t kLargestByteText = 9223372036854775807ULL;  // 2^63 − 1
constexpr double kTwoToThe53 = 9007199254740992.0;

// The CSV's number formatter: made once, never destroyed, and safe to use from any thread (an ICU
// LocalizedNumberFormatter is immutable).
const icu::number::LocalizedNumberFormatter& csvNumberFormatter() {
    static const auto* formatter = new icu::number::LocalizedNumberFormatter(
        icu::number::NumberFormatter::withLocale(icu::Locale("en_US_POSIX"))
            .precision(icu::number::Precision::minMaxFraction(0, 6))
            .grouping(UNUM_GROUPING_OFF));
    return *formatter;
}

std::optional<std::string> icuNumberText(double value) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString text = csvNumberFormatter().formatDouble(value, status).toString(status);
    if (U_FAILURE(status) || text.isEmpty()) return std::nullopt;
    std::string result;
    text.toUTF8String(result);
    return result;
}

// Appends timestamps as "2025-03-01T08:15:30.125Z": ISO 8601 in UTC with milliseconds. The date
// part is worked out once per day, the time of day is written digit by digit: the CSV has one
// timestamp per sample, and a run's samples rarely span more than a day or two.
class TimestampWriter {
public:
    void append(std::string& out, std::chrono::system_clock::time_point time) {
        using namespace std::chrono;
        const auto milliseconds = floor<std::chrono::milliseconds>(time);
        const auto day = floor<days>(milliseconds);
        if (day != day_) {
            day_ = day;
            const year_month_day date(day);
            datePart_ = fmt::format("{:04}-{:02}-{:02}T", static_cast<int>(date.year()),
                                    static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
        }
        auto ofDay = static_cast<unsigned>((milliseconds - day).count());
        char clock[] = "00:00:00.000Z";
        const auto put = [&clock](std::size_t at, unsigned value, int digits) {
            for (int i = digits - 1; i >= 0; --i, value /= 10)
                clock[at + static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
        };
        put(9, ofDay % 1000, 3);
        ofDay /= 1000;
        put(6, ofDay % 60, 2);
        put(3, ofDay / 60 % 60, 2);
        put(0, ofDay / 3600, 2);
        out += datePart_;
        out.append(clock, sizeof clock - 1);
    }

private:
    std::chrono::sys_days day_{std::chrono::days::min()};
    std::string datePart_;
};

// Appends a computed CSV field (see csvNumberText) without a string of its own.
void appendNumber(std::string& out, double value) {
    // ICU writes a double from its shortest round-trip digits. Whole numbers below 2^53 and values
    // whose shortest digits need no more than six fraction digits come out the same from fmt's
    // shortest form, which is many times faster; everything else goes to ICU.
    if (std::isfinite(value) && std::abs(value) < kTwoToThe53) {
        if (value == std::trunc(value)) {
            fmt::format_to(std::back_inserter(out), FMT_COMPILE("{}"), static_cast<std::int64_t>(value));
            return;
        }
        char shortest[32];
        const auto end = fmt::format_to_n(shortest, sizeof shortest, FMT_COMPILE("{}"), value).out;
        const std::string_view digits(shortest, static_cast<std::size_t>(end - shortest));
        const auto point = digits.find('.');
        if (digits.find('e') == std::string_view::npos && point != std::string_view::npos &&
            digits.size() - point - 1 <= 6) {
            out += digits;
            return;
        }
    }
    if (auto text = icuNumberText(value)) out += *text;
    else fmt::format_to(std::back_inserter(out), "{:.3f}", value);
}

// Writes `bytes` to `path`, replacing the file; the reason in the user's language on failure. Only
// a regular file is written: a named pipe or a device there is refused, and opening does not wait
// for a pipe's reader.
std::optional<std::string> writeFile(const std::string& path, const void* bytes, std::size_t size) {
    const auto failure = [&path](int error) { return ChartExportSupport::writeFailureText(path, error); };
    if (auto refused = ChartExportSupport::specialFileRefusal(path)) return refused;
    struct stat status {};
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
    if (fd < 0) return failure(errno);
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        return ChartExportSupport::writeFailureText(path, text::notRegularFileText(status.st_mode));
    }
    if (const int error = ChartExportSupport::writeAll(fd, static_cast<const char*>(bytes), size); error != 0) {
        ::close(fd);
        return failure(error);
    }
    if (::close(fd) != 0) return failure(errno);
    return std::nullopt;
}

}  // namespace

std::string ChartExportSupport::writeFailureText(const std::string& path, const std::string& reason) {
    return text::isEnglish() ? fmt::format("Could not write the file “{}”: {}", path, reason)
                             : fmt::format("无法写入文件“{}”：{}", path, reason);
}

std::string ChartExportSupport::writeFailureText(const std::string& path, int error) {
    return writeFailureText(path, std::generic_category().message(error));
}

std::optional<std::string> ChartExportSupport::specialFileRefusal(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        return writeFailureText(path, text::notRegularFileText(status.st_mode));
    }
    return std::nullopt;
}

int ChartExportSupport::writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

double ChartExportSupport::speedFactor(std::int64_t sampleIntervalMs) {
    return sampleIntervalMs >= 1 ? 1000.0 / static_cast<double>(sampleIntervalMs) : 0.0;
}

std::string ChartExportSupport::csvNumberText(double value) {
    std::string text;
    appendNumber(text, value);
    return text;
}

std::string ChartExportSupport::csvTimestampText(std::chrono::system_clock::time_point time) {
    std::string text;
    TimestampWriter().append(text, time);
    return text;
}

std::string ChartExportSupport::csvText(const SampleWindow& samples, std::int64_t sampleIntervalMs) {
    std::string out = "timestamp,elapsed_seconds,read_bytes,write_bytes,read_bytes_per_sec,write_bytes_per_sec";
    out.reserve(out.size() + samples.size() * 96);
    const double factor = speedFactor(sampleIntervalMs);
    const double interval = sampleIntervalMs >= 1 ? static_cast<double>(sampleIntervalMs) : 0.0;
    TimestampWriter timestamps;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const DiskSample& sample = samples[i];
        out += '\n';
        timestamps.append(out, sample.timestamp);
        out += ',';
        appendNumber(out, static_cast<double>(i) * interval / 1000.0);
        fmt::format_to(std::back_inserter(out), FMT_COMPILE(",{},{},"), sample.readBytes, sample.writeBytes);
        appendNumber(out, static_cast<double>(sample.readBytes) * factor);
        out += ',';
        appendNumber(out, static_cast<double>(sample.writeBytes) * factor);
    }
    return out;
}

ChartExportSupport::Rect ChartExportSupport::plotRect(int width, int height) {
    return {220, 240, static_cast<double>(std::max(width - 380, 1)), static_cast<double>(std::max(height - 400, 1))};
}

std::int64_t ChartExportSupport::pointLimit(const Rect& plot) {
    return std::max(static_cast<std::int64_t>(plot.width), std::int64_t{512});
}

std::vector<ChartExportSupport::DownsampledPoint> ChartExportSupport::reducedPoints(const SampleWindow& samples,
                                                                                    std::int64_t sampleIntervalMs,
                                                                                    std::int64_t limit) {
    const double factor = speedFactor(sampleIntervalMs);
    const auto n = static_cast<std::int64_t>(samples.size());
    const auto pointOf = [&](std::int64_t i) {
        const DiskSample& sample = samples[static_cast<std::size_t>(i)];
        return DownsampledPoint{i, static_cast<double>(sample.readBytes) * factor,
                                static_cast<double>(sample.writeBytes) * factor};
    };
    std::vector<DownsampledPoint> points;
    if (limit < 3 || n <= limit) {
        points.reserve(static_cast<std::size_t>(n));
        for (std::int64_t i = 0; i < n; ++i) points.push_back(pointOf(i));
        return points;
    }
    const std::int64_t last = n - 1;
    const auto chunk = std::max(
        static_cast<std::int64_t>(std::ceil(static_cast<double>(last - 1) / static_cast<double>(limit - 2))),
        std::int64_t{1});
    points.reserve(static_cast<std::size_t>((last - 1) / chunk + 3));
    points.push_back(pointOf(0));
    for (std::int64_t start = 1; start < last; start += chunk) {
        const std::int64_t end = std::min(last, start + chunk);
        std::uint64_t readPeak = 0, writePeak = 0;
        for (std::int64_t i = start; i < end; ++i) {
            readPeak = std::max(readPeak, samples[static_cast<std::size_t>(i)].readBytes);
            writePeak = std::max(writePeak, samples[static_cast<std::size_t>(i)].writeBytes);
        }
        points.push_back({std::min(start + (end - start) / 2, last), static_cast<double>(readPeak) * factor,
                          static_cast<double>(writePeak) * factor});
    }
    if (points.back().index != last) points.push_back(pointOf(last));
    return points;
}

double ChartExportSupport::niceStep(double x) {
    const double power = std::pow(10.0, std::floor(std::log10(x)));
    const double ratio = x / power;
    const double factor = ratio < 1.5 ? 1 : ratio < 3 ? 2 : ratio < 7 ? 5 : 10;
    return power * factor;
}

namespace {

// Ticks at 0, step, 2·step, … up to `top`, the last one at `top` itself.
std::vector<ChartExportSupport::AxisTick> evenTicks(double top, double step) {
    using AxisTick = ChartExportSupport::AxisTick;
    std::vector<AxisTick> ticks;
    if (!(step > 0) || !std::isfinite(step)) return {AxisTick{top, 1}};
    const auto count = std::max(static_cast<std::int64_t>(std::ceil(top / step)), std::int64_t{1});
    ticks.reserve(static_cast<std::size_t>(count) + 2);
    for (std::int64_t i = 0; i <= count; ++i) {
        const double value = std::min(static_cast<double>(i) * step, top);
        ticks.push_back({value, value / top});
    }
    if (ticks.back().value != top) ticks.push_back({top, 1});
    return ticks;
}

}  // namespace

std::vector<ChartExportSupport::AxisTick> ChartExportSupport::throughputTicks(
    const std::vector<DownsampledPoint>& points) {
    double highest = 1;
    for (const DownsampledPoint& point : points) highest = std::max({highest, point.readSpeed, point.writeSpeed});
    return evenTicks(highest, niceStep(highest / 5));
}

std::vector<ChartExportSupport::AxisTick> ChartExportSupport::timeTicks(std::int64_t sampleCount,
                                                                        std::int64_t sampleIntervalMs) {
    if (sampleCount < 2 || sampleIntervalMs < 1) return {AxisTick{0, 0}};
    const double span = static_cast<double>(sampleCount - 1) * static_cast<double>(sampleIntervalMs);
    return evenTicks(span, niceStep(span / 6));
}

ChartExportSupport::Totals ChartExportSupport::totals(const SampleWindow& samples, std::int64_t sampleIntervalMs) {
    Totals totals;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        totals.readBytes = saturatingAdd(totals.readBytes, samples[i].readBytes);
        totals.writeBytes = saturatingAdd(totals.writeBytes, samples[i].writeBytes);
    }
    if (sampleIntervalMs >= 1 && samples.size() > 1)
        totals.samplingTimeMs = static_cast<double>(sampleIntervalMs) * static_cast<double>(samples.size() - 1);
    if (totals.samplingTimeMs > 0)
        totals.averageSpeed = static_cast<double>(saturatingAdd(totals.readBytes, totals.writeBytes)) /
                              (totals.samplingTimeMs / 1000);
    return totals;
}

std::string ChartExportSupport::durationText(double milliseconds) {
    const bool english = text::isEnglish();
    if (!(milliseconds >= 1'000))
        return fmt::format("{:.0f}{}", std::round(milliseconds > 0 ? milliseconds : 0.0), english ? " ms" : " 毫秒");
    if (milliseconds < 60'000) return text::posixDecimalText(milliseconds / 1'000) + (english ? " s" : " 秒");
    if (milliseconds < 3'600'000) return text::posixDecimalText(milliseconds / 60'000) + (english ? " min" : " 分钟");
    return text::posixDecimalText(milliseconds / 3'600'000) + (english ? " h" : " 小时");
}

std::array<std::string, 4> ChartExportSupport::summaryLines(const Totals& totals) {
    const auto units = text::ByteUnits::bytes | text::ByteUnits::kilobytes | text::ByteUnits::megabytes |
                       text::ByteUnits::gigabytes | text::ByteUnits::terabytes | text::ByteUnits::petabytes;
    const auto bytes = [units](std::uint64_t value) {
        return text::byteCountText(std::min(value, kLargestByteText), units);
    };
    return {text::localized("总采样时间：", "Total Sampling Time: ") + durationText(totals.samplingTimeMs),
            text::localized("平均速度：", "Average Throughput: ") + text::speedText(totals.averageSpeed),
            text::localized("累计读取：", "Cumulative Read: ") + bytes(totals.readBytes),
            text::localized("累计写入：", "Cumulative Write: ") + bytes(totals.writeBytes)};
}

std::string ChartExportSupport::readLegendText() { return text::localized("绿色：读取", "Green: Read"); }
std::string ChartExportSupport::writeLegendText() { return text::localized("橙色：写入", "Orange: Write"); }
std::string ChartExportSupport::waitingText() { return text::localized("等待数据…", "Waiting for data…"); }

std::string ChartExportSupport::suggestedFileName(std::chrono::system_clock::time_point now) {
    return "Vantorix-" + text::fileNameTimestamp(now, false) + ".csv";
}

std::string ChartExportSupport::pngPath(const std::string& csvPath) {
    return std::filesystem::path(csvPath).replace_extension("png").string();
}

std::optional<ChartExportSupport::Outcome> ChartExportSupport::exportChart(const SampleWindow& samples,
                                                                           std::int64_t sampleIntervalMs,
                                                                           const std::string& csvPath,
                                                                           const PNGRenderer& renderPNG) {
    if (samples.size() < 2) return std::nullopt;
    const std::string png = pngPath(csvPath);
    // The text is built as UTF-8 bytes from the start, so there is no conversion that could fail.
    const std::string csv = csvText(samples, sampleIntervalMs);
    auto image = renderPNG(samples, sampleIntervalMs);
    if (!image) return Outcome{false, text::chartExportFailed(image.error().description())};
    if (auto failure = writeFile(csvPath, csv.data(), csv.size()))
        return Outcome{false, text::chartExportFailed(*failure)};
    if (auto failure = writeFile(png, image->data(), image->size()))
        return Outcome{false, text::chartExportFailed(*failure)};
    return Outcome{true, text::chartExportSaved(csvPath, png)};
}

}  // namespace vantorix
