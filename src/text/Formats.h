#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace vantorix::text {

// Numbers are written in the locale of currentNumberLocaleId() (text/Locale.h), read on every call.

// Decimal byte units (1 KB = 1000 B). A set of them is a bit mask: `ByteUnits::kilobytes | ByteUnits::megabytes`.
enum class ByteUnits : std::uint8_t {
    none = 0,
    bytes = 1U << 0U,
    kilobytes = 1U << 1U,
    megabytes = 1U << 2U,
    gigabytes = 1U << 3U,
    terabytes = 1U << 4U,
    petabytes = 1U << 5U,
};

constexpr ByteUnits operator|(ByteUnits a, ByteUnits b) {
    return static_cast<ByteUnits>(static_cast<std::uint8_t>(a) | static_cast<std::uint8_t>(b));
}

// A byte count in the largest allowed unit that is not larger than the value (the smallest allowed
// unit for smaller values), e.g. "2.5 GB". B and KB have no fraction digits, MB one, GB and up two;
// trailing zeros are dropped and halves round away from zero. When rounding reaches 1000 of a unit
// and a larger unit is allowed, the larger unit is used ("1 MB", never "1000 KB"). The number uses
// the current locale's separators. An empty unit set counts in bytes.
std::string byteCountText(std::uint64_t bytes, ByteUnits allowed);

// Throughput for the graph, tooltip and export: clamped to 0 … 2^63, rounded, units B … TB, "/s" or "/秒".
std::string speedText(double bytesPerSecond);

// Throughput for the metric cards: units B … GB; zero or less is "0 B/s" / "0 B/秒".
std::string cardSpeedText(double bytesPerSecond);

// Operations per second with at most one fraction digit; exactly zero is "0/s" / "0/秒".
std::string operationRateText(double operationsPerSecond);

// A running total: units B … TB, capped at 2^63 − 1 with "+" appended beyond; zero is "0 Bytes" / "0 字节".
std::string totalBytesText(std::uint64_t bytes);

// A volume capacity in GB, TB or PB.
std::string capacityText(std::uint64_t bytes);

// A span of time for the graph's time axis and tooltip: ms, s, min or h, with " ago" / "前" when `ago`.
std::string durationText(double milliseconds, bool ago);

// "HH:MM:SS" of the rounded seconds; hours are not limited to 24. Negative or NaN is "00:00:00".
std::string clockDurationText(double seconds);

// "yyyy-MM-dd HH:mm:ss.SSS" in the user's time zone.
std::string tooltipTimeText(std::chrono::system_clock::time_point time);

// "yyyyMMdd-HHmmss" in UTC or in the user's time zone, for file names.
std::string fileNameTimestamp(std::chrono::system_clock::time_point time, bool utc);

// Medium date and medium time ("Nov 16, 2026, 1:45:01 PM" / "2026年11月16日 13:45:01") in the
// current language (zh_CN or en_US_POSIX), in the zone `zoneId` or else the user's zone.
std::string mediumDateTimeText(std::chrono::system_clock::time_point time, const char* zoneId = nullptr);

// A fraction (0.25) written as a percentage ("25%") in the current locale.
std::string percentText(double fraction, int maxFractionDigits);

// A number in the current locale with the given range of fraction digits (halves round to even).
std::string decimalText(double value, int minFractionDigits, int maxFractionDigits);

// A number in the fixed locale en_US_POSIX with 0 to 2 fraction digits and at least one integer digit.
std::string posixDecimalText(double value);

// Upper case by the rules of the current locale (used for file-system type names).
std::string upperCasedForCurrentLocale(std::string_view text);

}  // namespace vantorix::text
