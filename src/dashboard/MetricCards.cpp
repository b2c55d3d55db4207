#include "dashboard/MetricCards.h"

#include <array>
#include <cstdlib>

#include "monitor/MonitorMetrics.h"
#include "smart/SmartValueText.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Trim.h"

namespace vantorix::dashboard {
namespace {

using text::localized;

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

bool namesControllerTemperature(const DiskSMARTInfo::Detail& detail) {
    const std::string path = smart::lowercased(detail.keyPath);
    static constexpr std::array<std::string_view, 3> kPaths{"nvme_smart_health_information_log.temperature",
                                                            "smart_health_information_log.temperature",
                                                            "temperature.controller"};
    for (const auto known : kPaths) {
        if (path == known) return true;
    }
    if (contains(path, "controller") && contains(path, "temperature")) return true;
    const std::string_view name = text::trimmed(detail.displayName);
    return name == "主控温度" || smart::lowercased(name) == "controller temperature";
}

bool isUsable(std::string_view value) {
    const std::string_view trimmedValue = text::trimmed(value);
    if (trimmedValue.empty()) return false;
    const std::string lower = smart::lowercased(trimmedValue);
    static constexpr std::array<std::string_view, 7> kUnknown{"unknown", "n/a",  "not available", "unsupported",
                                                              "无",      "暂无", "未知"};
    for (const auto word : kUnknown) {
        if (contains(lower, word)) return false;
    }
    return true;
}

}  // namespace

std::uint32_t accentRgb(AccentColor color) {
    switch (color) {
        case AccentColor::green: return 0x34C759;
        case AccentColor::orange: return 0xFF9500;
        case AccentColor::mint: return 0x00C7BE;
        case AccentColor::purple: return 0xAF52DE;
        case AccentColor::blue: return 0x007AFF;
        case AccentColor::pink: return 0xFF2D55;
        case AccentColor::teal: return 0x30B0C7;
        case AccentColor::red: return 0xFF3B30;
        case AccentColor::indigo: return 0x5856D6;
    }
    return 0x007AFF;
}

std::optional<std::string> controllerTemperatureText(const DiskSMARTInfo& info) {
    for (const auto& detail : info.details) {
        if (!namesControllerTemperature(detail) || !isUsable(detail.value)) continue;
        const std::string value(text::trimmed(detail.value));
        const std::string lower = smart::lowercased(value);
        if (contains(lower, "℃") || contains(lower, "°c") || contains(lower, "celsius") || contains(lower, "摄氏")) {
            return value;  // already says its unit
        }
        std::string number;
        for (const char c : value) {
            if ((c >= '0' && c <= '9') || c == '.' || c == '-') number += c;
        }
        char* end = nullptr;
        const double parsed = number.empty() ? 0 : std::strtod(number.c_str(), &end);
        if (!number.empty() && end == number.c_str() + number.size()) return text::decimalText(parsed, 0, 1) + " ℃";
        return value + " ℃";
    }
    return std::nullopt;
}

std::vector<MetricCardContent> metricCards(const DiskIOMonitor::State& state) {
    const auto speeds = MonitorMetrics::lastSecondSpeeds(state.samples, state.samplingPrecision);
    const auto rates = MonitorMetrics::operationRates(state.samples, state.samplingPrecision);
    const std::string lastSecond = localized("最近 1 秒平均", "Average over last second");
    std::vector<MetricCardContent> cards{
        {Uuid::make(), localized("读取速度", "Read Speed"), "arrow.down.circle.fill", text::cardSpeedText(speeds.read),
         AccentColor::green, lastSecond},
        {Uuid::make(), localized("写入速度", "Write Speed"), "arrow.up.circle.fill", text::cardSpeedText(speeds.write),
         AccentColor::orange, lastSecond},
        {Uuid::make(), localized("读操作频率", "Read Ops Rate"), "square.and.arrow.down.fill",
         text::operationRateText(rates.read), AccentColor::mint, lastSecond},
        {Uuid::make(), localized("写操作频率", "Write Ops Rate"), "square.and.arrow.up.fill",
         text::operationRateText(rates.write), AccentColor::purple, lastSecond},
        {Uuid::make(), localized("累计读取", "Total Read"), "externaldrive.fill",
         text::totalBytesText(state.totalReadBytes), AccentColor::blue, localized("累计读取总量", "Read total")},
        {Uuid::make(), localized("累计写入", "Total Write"), "externaldrive.fill",
         text::totalBytesText(state.totalWriteBytes), AccentColor::pink, localized("累计写入总量", "Write total")},
        {Uuid::make(), localized("持续时间", "Monitoring Duration"), "clock.fill",
         text::clockDurationText(state.monitoringDuration), AccentColor::teal,
         localized("自启动累计", "Since monitoring start")},
    };
    if (state.selectedVolume && state.selectedVolume->smartInfo) {
        if (auto temperature = controllerTemperatureText(*state.selectedVolume->smartInfo)) {
            cards.push_back({Uuid::make(), localized("主控温度", "Controller Temperature"), "thermometer",
                             std::move(*temperature), AccentColor::red, localized("每秒更新", "SMART 1s refresh")});
        }
    }
    return cards;
}

}  // namespace vantorix::dashboard
