#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantorix::health {

// The numeric health figures a drive's history keeps. Counts are the drive's raw counts; bytes
// are bytes; temperature is in degrees Celsius; percentageUsed is the drive's own estimate of its
// used endurance (NVMe's percentage used, or 100 minus an ATA wear attribute's normalised value).
enum class Figure : std::uint8_t {
    temperature,
    powerOnHours,
    percentageUsed,
    reallocatedSectors,
    pendingSectors,
    uncorrectableSectors,
    crcErrors,
    mediaErrors,
    unsafeShutdowns,
    bytesWritten,
    bytesRead,
};
inline constexpr std::size_t kFigureCount = 11;

// The figures that a healthy drive never increases: each keeps a baseline, and growth above it
// is what the views and alerts report.
inline constexpr std::array<Figure, 5> kGrowthFigures{Figure::reallocatedSectors, Figure::pendingSectors,
                                                      Figure::uncorrectableSectors, Figure::crcErrors,
                                                      Figure::mediaErrors};
bool isGrowthFigure(Figure figure);

// The figure's name in files, JSON and metric labels: "temperature", "power_on_hours",
// "percentage_used", "reallocated_sectors", "pending_sectors", "uncorrectable_sectors",
// "crc_errors", "media_errors", "unsafe_shutdowns", "bytes_written", "bytes_read".
std::string_view figureName(Figure figure);
std::optional<Figure> figureNamed(std::string_view name);
// In the user's language, for tables and the history view: "Reallocated sectors" / "重新分配扇区".
std::string figureTitle(Figure figure);

// Who a drive is, independent of the kernel name it has today: its World Wide Name when it
// reports one, else its model and serial number. The device name is only where it was last seen.
struct DriveIdentity {
    std::string wwn;     // "0x5002538e40a22954", or empty
    std::string model;   // trimmed, or empty
    std::string serial;  // trimmed, or empty
    std::string deviceHint;
    std::string backingFile;  // for a loop device: the file it reads and writes, or empty

    // "wwn:0x5002538e40a22954", "model-serial:MODEL/SERIAL", or for a loop device "file:PATH";
    // empty when none is known, and then the drive is not recorded.
    std::string key() const;
    bool known() const { return !key().empty(); }
};

// One reading of a drive's figures; each is absent when the drive does not report it.
struct HealthSnapshot {
    std::int64_t at = 0;         // Unix seconds
    std::optional<bool> passed;  // the overall self-assessment
    std::array<std::optional<double>, kFigureCount> figures{};

    std::optional<double>& operator[](Figure figure) { return figures[static_cast<std::size_t>(figure)]; }
    const std::optional<double>& operator[](Figure figure) const { return figures[static_cast<std::size_t>(figure)]; }
};

// How a new reading differs from the last one stored.
enum class Change : std::uint8_t {
    none,     // nothing, or only what grows with use (power-on hours, bytes written and read)
    small,    // the temperature by less than kTemperatureStep
    notable,  // the verdict, a count, the wear, or the temperature by kTemperatureStep or more
};
inline constexpr double kTemperatureStep = 3;  // °C
Change changeBetween(const HealthSnapshot& stored, const HealthSnapshot& next);

// Everything a smartctl --json answer tells about a drive's health.
struct DriveReading {
    DriveIdentity identity;
    HealthSnapshot snapshot;
    std::optional<double> criticalWarning;   // NVMe's critical warning bits
    std::optional<double> temperatureLimit;  // the drive's own highest operating temperature, °C
};

// The reading in a smartctl --json answer read at `at` (Unix seconds); nothing when the text is not
// a JSON object. The identity's device name is `deviceHint`, or the answer's when that is empty.
std::optional<DriveReading> driveReadingFromJson(std::string_view smartctlJson, std::int64_t at,
                                                 std::string_view deviceHint = {});

}  // namespace vantorix::health
