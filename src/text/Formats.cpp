#include "text/Formats.h"
#include "text/IcuText.h"

#include "text/Language.h"
#include "text/Locale.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unicode/locid.h>
#include <unicode/measunit.h>
#include <unicode/numberformatter.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace vantorix::text {

std::optional<std::string> toUtf8(const icu::number::FormattedNumber& formatted, UErrorCode& status) {
    const icu::UnicodeString text = formatted.toString(status);
    if (U_FAILURE(status) || text.isEmpty()) return std::nullopt;
    std::string result;
    text.toUTF8String(result);
    return result;
}

namespace {

namespace number = icu::number;

constexpr double kTwoToThe63 = 9223372036854775808.0;
constexpr std::uint64_t kLargestTotal = 9223372036854775807ULL;  // 2^63 − 1

// ICU number formatters, made once per locale and configuration and never destroyed. A
// LocalizedNumberFormatter is immutable, and formatting through a const one is thread-safe, so a
// reference handed out stays valid and usable from any thread; only the map needs the lock.
class NumberFormatterCache {
public:
    using Factory = std::function<number::LocalizedNumberFormatter(const icu::Locale&)>;

    const number::LocalizedNumberFormatter& get(const std::string& localeId, const std::string& configuration,
                                                const Factory& make) {
        std::string key = localeId + '|' + configuration;
        const std::lock_guard lock(mutex_);
        auto found = formatters_.find(key);
        if (found == formatters_.end()) {
            const icu::Locale locale(localeId.c_str());
            found = formatters_
                        .emplace(std::move(key), std::make_unique<const number::LocalizedNumberFormatter>(make(locale)))
                        .first;
        }
        return *found->second;
    }

private:
    std::mutex mutex_;
    std::map<std::string, std::unique_ptr<const number::LocalizedNumberFormatter>> formatters_;
};

NumberFormatterCache& numberFormatters() {
    // Deliberately never destroyed, so that a thread still formatting during exit finds it intact.
    static auto* cache = new NumberFormatterCache;
    return *cache;
}

std::optional<std::string> formatDouble(const number::LocalizedNumberFormatter& formatter, double value) {
    UErrorCode status = U_ZERO_ERROR;
    return toUtf8(formatter.formatDouble(value, status), status);
}

std::pair<int, int> fractionRange(int minFractionDigits, int maxFractionDigits) {
    const int low = std::clamp(minFractionDigits, 0, 20);
    return {low, std::clamp(maxFractionDigits, low, 20)};
}

std::string decimalTextIn(const std::string& localeId, double value, int minFractionDigits, int maxFractionDigits) {
    const auto [low, high] = fractionRange(minFractionDigits, maxFractionDigits);
    const auto make = [low = low, high = high](const icu::Locale& locale) {
        return number::NumberFormatter::withLocale(locale)
            .precision(number::Precision::minMaxFraction(low, high))
            .integerWidth(number::IntegerWidth::zeroFillTo(1))
            .sign(UNUM_SIGN_NEGATIVE);  // no "-0" for values that round to zero
    };
    const auto& formatter = numberFormatters().get(localeId, fmt::format("decimal {} {}", low, high), make);
    if (auto text = formatDouble(formatter, value)) return *std::move(text);
    return fmt::format("{:.{}f}", value, high);
}

// ---- byte counts ----

constexpr std::array<std::string_view, 6> kUnitSymbols{"B", "KB", "MB", "GB", "TB", "PB"};
constexpr std::array<int, 6> kUnitFractionDigits{0, 0, 1, 2, 2, 2};
constexpr int kUnitCount = static_cast<int>(kUnitSymbols.size());

constexpr std::uint64_t powerOfTen(int exponent) {
    std::uint64_t result = 1;
    for (int i = 0; i < exponent; ++i) result *= 10;
    return result;
}

constexpr bool allows(ByteUnits allowed, int unit) {
    return (static_cast<unsigned>(allowed) & (1U << static_cast<unsigned>(unit))) != 0;
}

// "q / 10^digits" as a plain decimal string, e.g. (250, 2) → "2.50".
std::string scaledDecimal(std::uint64_t q, int digits) {
    std::string text = std::to_string(q);
    if (digits == 0) return text;
    const auto width = static_cast<std::size_t>(digits) + 1;
    if (text.size() < width) text.insert(0, width - text.size(), '0');
    text.insert(text.size() - static_cast<std::size_t>(digits), 1, '.');
    return text;
}

std::string formatScaledDecimal(const std::string& decimal, int digits) {
    // The value is already rounded; the formatter only adds the locale's separators.
    const auto make = [digits](const icu::Locale& locale) {
        return number::NumberFormatter::withLocale(locale)
            .precision(number::Precision::minMaxFraction(0, digits))
            .roundingMode(UNUM_ROUND_HALFUP);
    };
    const auto& formatter = numberFormatters().get(currentNumberLocaleId(), fmt::format("bytes {}", digits), make);
    UErrorCode status = U_ZERO_ERROR;
    const icu::StringPiece piece(decimal.data(), static_cast<int32_t>(decimal.size()));
    if (auto text = toUtf8(formatter.formatDecimal(piece, status), status)) return *std::move(text);
    std::string plain = decimal;
    if (plain.find('.') != std::string::npos) {
        while (plain.back() == '0') plain.pop_back();
        if (plain.back() == '.') plain.pop_back();
    }
    return plain;
}

std::string withSuffix(std::string text, std::string_view chinese, std::string_view english) {
    text += isEnglish() ? english : chinese;
    return text;
}

// ---- dates ----

// ICU date formats are not thread-safe, so each one is used under a lock.
class DateFormatter {
public:
    // A fixed pattern in en_US_POSIX.
    explicit DateFormatter(const char* pattern) {
        UErrorCode status = U_ZERO_ERROR;
        auto format = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(pattern, -1, US_INV),
                                                              icu::Locale(kPosixLocale), status);
        if (U_SUCCESS(status)) format_ = std::move(format);
    }
    // Date and time both in `style`, in a locale.
    DateFormatter(icu::DateFormat::EStyle style, const char* localeId)
        : format_(icu::DateFormat::createDateTimeInstance(style, style, icu::Locale(localeId))) {}

    // In `zone`, or in the user's zone when it is null. The zone is set on every call so that a
    // change of the user's zone is followed.
    std::optional<std::string> format(std::chrono::system_clock::time_point time, std::unique_ptr<icu::TimeZone> zone) {
        std::unique_ptr<icu::TimeZone> owned = zone ? std::move(zone)
                                                    : std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault());
        const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()).count();
        const std::lock_guard lock(mutex_);
        if (!format_) return std::nullopt;
        format_->adoptTimeZone(owned.release());
        icu::UnicodeString text;
        format_->format(static_cast<UDate>(milliseconds), text);
        if (text.isEmpty()) return std::nullopt;
        std::string result;
        text.toUTF8String(result);
        return result;
    }

private:
    std::mutex mutex_;
    std::unique_ptr<icu::DateFormat> format_;
};

std::unique_ptr<icu::TimeZone> utcZone(bool utc) {
    return std::unique_ptr<icu::TimeZone>(utc ? icu::TimeZone::getGMT()->clone() : nullptr);
}

DateFormatter& tooltipDateFormatter() {
    static auto* formatter = new DateFormatter("yyyy-MM-dd HH:mm:ss.SSS");
    return *formatter;
}

DateFormatter& fileNameDateFormatter() {
    static auto* formatter = new DateFormatter("yyyyMMdd-HHmmss");
    return *formatter;
}

std::tm brokenDownTime(std::chrono::system_clock::time_point time, bool utc) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm parts{};
    if (utc) ::gmtime_r(&seconds, &parts);
    else ::localtime_r(&seconds, &parts);
    return parts;
}

}  // namespace

std::string byteCountText(std::uint64_t bytes, ByteUnits allowed) {
    if (allowed == ByteUnits::none) allowed = ByteUnits::bytes;
    int unit = -1;
    for (int candidate = 0; candidate < kUnitCount; ++candidate) {
        if (!allows(allowed, candidate)) continue;
        if (unit < 0 || bytes >= powerOfTen(3 * candidate)) unit = candidate;
    }
    if (unit < 0) unit = 0;  // only bits outside the known units were set

    for (;;) {
        const int digits = kUnitFractionDigits[static_cast<std::size_t>(unit)];
        // The value in units of the last fraction digit, rounded half away from zero.
        const std::uint64_t divisor = powerOfTen(3 * unit - digits);
        std::uint64_t scaled = bytes / divisor;
        const std::uint64_t remainder = bytes % divisor;
        if (remainder >= divisor - remainder) ++scaled;

        int larger = unit + 1;
        while (larger < kUnitCount && !allows(allowed, larger)) ++larger;
        if (larger < kUnitCount && scaled >= powerOfTen(3 * (larger - unit) + digits)) {
            unit = larger;  // rounding reached the next allowed unit
            continue;
        }
        return formatScaledDecimal(scaledDecimal(scaled, digits), digits) + ' ' +
               std::string(kUnitSymbols[static_cast<std::size_t>(unit)]);
    }
}

std::string speedText(double bytesPerSecond) {
    const double clamped = bytesPerSecond > 0 ? std::min(bytesPerSecond, kTwoToThe63) : 0.0;
    const auto bytes = static_cast<std::uint64_t>(std::round(clamped));
    const auto units = ByteUnits::bytes | ByteUnits::kilobytes | ByteUnits::megabytes | ByteUnits::gigabytes |
                       ByteUnits::terabytes;
    return withSuffix(byteCountText(bytes, units), "/秒", "/s");
}

std::string cardSpeedText(double bytesPerSecond) {
    if (!(bytesPerSecond > 0)) return localized("0 B/秒", "0 B/s");
    const auto bytes = static_cast<std::uint64_t>(std::round(std::min(bytesPerSecond, kTwoToThe63)));
    const auto units = ByteUnits::bytes | ByteUnits::kilobytes | ByteUnits::megabytes | ByteUnits::gigabytes;
    return withSuffix(byteCountText(bytes, units), "/秒", "/s");
}

std::string operationRateText(double operationsPerSecond) {
    if (operationsPerSecond == 0) return localized("0/秒", "0/s");
    return withSuffix(decimalText(operationsPerSecond, 0, 1), "/秒", "/s");
}

std::string totalBytesText(std::uint64_t bytes) {
    if (bytes == 0) return localized("0 字节", "0 Bytes");
    const auto units = ByteUnits::bytes | ByteUnits::kilobytes | ByteUnits::megabytes | ByteUnits::gigabytes |
                       ByteUnits::terabytes;
    std::string text = byteCountText(std::min(bytes, kLargestTotal), units);
    if (bytes > kLargestTotal) text += '+';
    return text;
}

std::string capacityText(std::uint64_t bytes) {
    return byteCountText(bytes, ByteUnits::gigabytes | ByteUnits::terabytes | ByteUnits::petabytes);
}

std::string durationText(double milliseconds, bool ago) {
    const bool english = isEnglish();
    if (!(milliseconds >= 0.5)) {
        if (ago) return "0";
        return english ? "0 ms" : "0 毫秒";
    }
    std::string text;
    if (milliseconds < 1'000) {
        // Rounded only after the threshold test, so 999.6 ms reads "1000 ms".
        text = fmt::format("{:.0f}{}", std::round(milliseconds), english ? " ms" : " 毫秒");
    } else if (milliseconds < 60'000) {
        text = decimalText(milliseconds / 1'000, 0, 2) + (english ? " s" : " 秒");
    } else if (milliseconds < 3'600'000) {
        text = decimalText(milliseconds / 60'000, 0, 2) + (english ? " min" : " 分钟");
    } else {
        text = decimalText(milliseconds / 3'600'000, 0, 2) + (english ? " h" : " 小时");
    }
    if (ago) text += english ? " ago" : "前";
    return text;
}

std::string clockDurationText(double seconds) {
    if (!(seconds > 0)) return "00:00:00";
    // Far beyond any real monitoring run; keeps the conversion to an integer defined.
    constexpr double kLargest = 1e15;
    const auto total = static_cast<std::int64_t>(std::round(std::min(seconds, kLargest)));
    return fmt::format("{:02}:{:02}:{:02}", total / 3600, total % 3600 / 60, total % 60);
}

std::string tooltipTimeText(std::chrono::system_clock::time_point time) {
    if (auto text = tooltipDateFormatter().format(time, nullptr)) return *std::move(text);
    const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
    return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", brokenDownTime(time, false), (milliseconds + 1000) % 1000);
}

std::string fileNameTimestamp(std::chrono::system_clock::time_point time, bool utc) {
    if (auto text = fileNameDateFormatter().format(time, utcZone(utc))) return *std::move(text);
    return fmt::format("{:%Y%m%d-%H%M%S}", brokenDownTime(time, utc));
}

std::string mediumDateTimeText(std::chrono::system_clock::time_point time, const char* zoneId) {
    static auto* english = new DateFormatter(icu::DateFormat::kMedium, kPosixLocale);
    static auto* chinese = new DateFormatter(icu::DateFormat::kMedium, "zh_CN");
    std::unique_ptr<icu::TimeZone> zone(
        zoneId != nullptr ? icu::TimeZone::createTimeZone(icu::UnicodeString(zoneId, -1, US_INV)) : nullptr);
    if (auto text = (isEnglish() ? english : chinese)->format(time, std::move(zone))) return *std::move(text);
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", brokenDownTime(time, zoneId != nullptr));
}

std::string percentText(double fraction, int maxFractionDigits) {
    const int high = fractionRange(0, maxFractionDigits).second;
    const auto make = [high](const icu::Locale& locale) {
        return number::NumberFormatter::withLocale(locale)
            .unit(icu::MeasureUnit::getPercent())
            .scale(number::Scale::powerOfTen(2))
            .precision(number::Precision::minMaxFraction(0, high));
    };
    const auto& formatter = numberFormatters().get(currentNumberLocaleId(), fmt::format("percent {}", high), make);
    if (auto text = formatDouble(formatter, fraction)) return *std::move(text);
    return fmt::format("{:.{}f}%", fraction * 100, high);
}

std::string decimalText(double value, int minFractionDigits, int maxFractionDigits) {
    return decimalTextIn(currentNumberLocaleId(), value, minFractionDigits, maxFractionDigits);
}

std::string posixDecimalText(double value) { return decimalTextIn(kPosixLocale, value, 0, 2); }

std::string upperCasedForCurrentLocale(std::string_view text) {
    icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    unicode.toUpper(icu::Locale(currentNumberLocaleId().c_str()));
    std::string result;
    unicode.toUTF8String(result);
    return result;
}

}  // namespace vantorix::text
