#include "charts/HealthChart.h"
#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace vantorix {
namespace {

using health::Figure;
using health::HealthSnapshot;

// 2026-11-23 00:00 UTC.
constexpr std::int64_t kMonday = 1'795'392'000;
constexpr std::int64_t kHour = 3600;

HealthSnapshot reading(std::int64_t at, std::optional<double> temperature, Figure count, double value,
                       std::optional<double> wear = std::nullopt) {
    HealthSnapshot snapshot;
    snapshot.at = at;
    snapshot[Figure::temperature] = temperature;
    snapshot[Figure::percentageUsed] = wear;
    snapshot[count] = value;
    return snapshot;
}

// Three days of hourly readings from Monday 10:00 with ten hours unwatched on the first evening:
// the temperature wanders between 38 and 42 °C and the reallocated sectors go from 0 to 8.
std::vector<HealthSnapshot> threeDays() {
    std::vector<HealthSnapshot> readings;
    for (std::int64_t k = 0; k < 72; ++k) {
        if (k >= 10 && k < 20) continue;
        readings.push_back(reading(kMonday + (10 + k) * kHour, 38.0 + static_cast<double>(k % 5),
                                   Figure::reallocatedSectors, k < 40 ? 0 : 8));
    }
    return readings;
}

// Local time is UTC for the test, and the process's zone again afterwards.
struct LocalZone {
    struct ReadAgain {
        ~ReadAgain() { ::tzset(); }
    } readAgain;
    testing::ScopedEnvironment zone{{"TZ", "UTC"}};
    LocalZone() { ::tzset(); }
};

// Each panel as "title latest [bottom|middle|top] pieces", with "grew" for a count above its baseline.
std::vector<std::string> panelsOf(const HealthChart& chart) {
    std::vector<std::string> panels;
    for (const auto& panel : chart.panels) {
        std::string labels;
        for (const auto& tick : panel.valueTicks) labels += (labels.empty() ? "" : "|") + tick.label;
        panels.push_back(panel.title + " " + panel.latest + " [" + labels + "] " + std::to_string(panel.pieces.size()) +
                         (panel.grew ? " grew" : ""));
    }
    return panels;
}

TEST(HealthChart, EachFigureOnItsOwnScaleOverWholeLocalTimes) {
    const LocalZone utc;
    const std::vector<health::Growth> eight{
        {Figure::reallocatedSectors, 0, kMonday + 10 * kHour, 8, kMonday + 50 * kHour}};
    const std::int64_t ten = kMonday + 10 * kHour;
    const std::vector<HealthSnapshot> tenMinutes{reading(ten, 41, Figure::mediaErrors, 0, 3),
                                                 reading(ten + 300, std::nullopt, Figure::mediaErrors, 0, 3),
                                                 reading(ten + 600, 44, Figure::mediaErrors, 0, 3)};
    std::vector<HealthSnapshot> dense;  // a reading a second flapping between 40 and 41 °C
    for (std::int64_t k = 0; k < 10'000; ++k)
        dense.push_back(reading(kMonday + k, 40.0 + static_cast<double>(k % 2), Figure::crcErrors, 0));
    const auto check = [](const char* lang, const std::vector<HealthSnapshot>& readings,
                          const std::vector<health::Growth>& growth, std::int64_t now, const std::string& timeLabels,
                          const std::vector<std::string>& panels) {
        SCOPED_TRACE(panels.front());
        const testing::ScopedLanguage language(lang);
        const auto chart = HealthChart::make(readings, growth, now, {600, 400});
        std::string times;
        for (const auto& tick : chart.timeTicks) times += (times.empty() ? "" : "|") + tick.label;
        EXPECT_EQ(times, timeLabels);
        EXPECT_EQ(panelsOf(chart), panels);
        for (const auto& panel : chart.panels) {
            for (const auto& piece : panel.pieces) {
                EXPECT_LE(piece.size(), 4 * (chart.plotRight - chart.plotLeft + 2));
                for (const auto& point : piece)
                    EXPECT_TRUE(point.y >= panel.top - 1e-9 && point.y <= panel.bottom + 1e-9);
            }
        }
    };
    // Days; the pause breaks the lines; a grown count.
    check("en_US.UTF-8", threeDays(), eight, kMonday + 83 * kHour, "Nov 24|12:00|Nov 25|12:00|Nov 26",
          {"Temperature 39 °C [35 °C|40 °C|45 °C] 2", "Reallocated sectors 8 [0|5|10] 2 grew"});
    check("zh_CN.UTF-8", threeDays(), eight, kMonday + 83 * kHour, "11月24日|12:00|11月25日|12:00|11月26日",
          {"温度 39 °C [35 °C|40 °C|45 °C] 2", "重新分配扇区 8 [0|5|10] 2 grew"});
    // Ten minutes show the last hour; a reading without temperature leaves two lone dots.
    check("en_US.UTF-8", tenMinutes, {}, ten + 600, "09:20|09:30|09:40|09:50|10:00|10:10",
          {"Temperature 44 °C [40 °C|45 °C|50 °C] 2", "Percentage used 3% [0%|5%|10%] 1", "Media errors 0 [0|1|2] 1"});
    // Ten thousand readings: a few points a pixel column.
    check("en_US.UTF-8", dense, {}, kMonday + 10'000, "00:30|01:00|01:30|02:00|02:30",
          {"Temperature 41 °C [35 °C|40 °C|45 °C] 1", "CRC errors 0 [0|1|2] 1"});
}

// The pointer picks the reading nearest in x, the bubble lists every figure, and it stays beside the marker.
TEST(HealthChart, HoverReadsTheNearestReading) {
    const LocalZone utc;
    const testing::ScopedLanguage english("en_US.UTF-8");
    const std::vector<HealthSnapshot> readings{reading(kMonday, 41, Figure::reallocatedSectors, 0),
                                               reading(kMonday + kHour, std::nullopt, Figure::reallocatedSectors, 8),
                                               reading(kMonday + 3 * kHour, 45, Figure::reallocatedSectors, 8)};
    const auto chart = HealthChart::make(readings, {}, kMonday + 3 * kHour, {600, 300});
    const double between = (chart.readingX[1] + chart.readingX[2]) / 2;
    const std::vector<std::tuple<double, double, std::optional<std::size_t>, std::string>> cases{
        {chart.plotLeft - 10, 100, 0, "Temperature: 41 °C\nReallocated sectors: 0"},
        {between - 1, 100, 1, "Temperature: —\nReallocated sectors: 8"},
        {between + 1, 5, 2, "Temperature: 45 °C\nReallocated sectors: 8"},
        {chart.plotLeft - 20, 100, std::nullopt, ""},
        {between, 320, std::nullopt, ""}};
    for (const auto& [x, y, expected, figures] : cases) {
        const auto hovered = chart.hovered({x, y});
        ASSERT_EQ(hovered, expected) << x;
        if (!hovered) continue;
        EXPECT_EQ(chart.tooltipLines(readings, *hovered).secondary, figures);
        const auto marker = chart.marker(readings, *hovered);
        const auto origin = chart.tooltipOrigin(marker, {200, 60});
        EXPECT_TRUE(origin.x >= 0 && origin.x + 200 <= 600 && (origin.x > marker.x || origin.x + 200 < marker.x));
    }
}

}  // namespace
}  // namespace vantorix
