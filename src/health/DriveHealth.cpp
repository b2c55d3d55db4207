#include "health/DriveHealth.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <nlohmann/json.hpp>

#include "text/Language.h"
#include "text/Trim.h"

namespace vantorix::health {
namespace {

using json = nlohmann::json;

struct FigureText {
    Figure figure;
    std::string_view name;
    std::string_view chinese;
    std::string_view english;
};

constexpr std::array<FigureText, kFigureCount> kFigureTexts{{
    {Figure::temperature, "temperature", "温度", "Temperature"},
    {Figure::powerOnHours, "power_on_hours", "通电时间（小时）", "Power-on hours"},
    {Figure::percentageUsed, "percentage_used", "已用寿命", "Percentage used"},
    {Figure::reallocatedSectors, "reallocated_sectors", "重新分配扇区", "Reallocated sectors"},
    {Figure::pendingSectors, "pending_sectors", "待映射扇区", "Pending sectors"},
    {Figure::uncorrectableSectors, "uncorrectable_sectors", "无法校正扇区", "Uncorrectable sectors"},
    {Figure::crcErrors, "crc_errors", "CRC 错误", "CRC errors"},
    {Figure::mediaErrors, "media_errors", "介质错误", "Media errors"},
    {Figure::unsafeShutdowns, "unsafe_shutdowns", "异常断电", "Unsafe shutdowns"},
    {Figure::bytesWritten, "bytes_written", "累计写入", "Bytes written"},
    {Figure::bytesRead, "bytes_read", "累计读取", "Bytes read"},
}};

const FigureText& textOf(Figure figure) { return kFigureTexts[static_cast<std::size_t>(figure)]; }

const json* find(const json& node, std::string_view key) {
    if (!node.is_object()) return nullptr;
    const auto found = node.find(key);
    return found == node.end() ? nullptr : &*found;
}

std::optional<double> numberAt(const json& document, std::initializer_list<std::string_view> path) {
    const json* node = &document;
    for (const auto key : path) {
        node = find(*node, key);
        if (node == nullptr) return std::nullopt;
    }
    if (!node->is_number()) return std::nullopt;
    const double value = node->get<double>();
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::string stringAt(const json& document, std::string_view key) {
    const json* node = find(document, key);
    return node != nullptr && node->is_string() ? std::string(text::trimmed(node->get<std::string>())) : std::string();
}

// The row of an ATA attribute, by its id.
const json* ataAttribute(const json& document, int id) {
    const json* attributes = find(document, "ata_smart_attributes");
    const json* table = attributes != nullptr ? find(*attributes, "table") : nullptr;
    if (table == nullptr || !table->is_array()) return nullptr;
    for (const auto& row : *table) {
        if (numberAt(row, {"id"}) == static_cast<double>(id)) return &row;
    }
    return nullptr;
}

std::optional<double> ataRaw(const json& document, std::initializer_list<int> ids) {
    for (const int id : ids) {
        if (const json* row = ataAttribute(document, id)) {
            if (auto raw = numberAt(*row, {"raw", "value"})) return raw;
        }
    }
    return std::nullopt;
}

// A World Wide Name as the kernel writes it (/sys/block/*/device/wwid less its prefix): the NAA
// nibble, the 24-bit OUI and the 36-bit vendor id, in 16 hex digits.
std::string wwnOf(const json& document) {
    const json* wwn = find(document, "wwn");
    if (wwn == nullptr) return {};
    const auto naa = numberAt(*wwn, {"naa"});
    const auto oui = numberAt(*wwn, {"oui"});
    const auto id = numberAt(*wwn, {"id"});
    if (!naa || !oui || !id || *naa < 0 || *naa > 15 || *oui < 0 || *oui >= 16777216.0 || *id < 0 ||
        *id >= 68719476736.0) {
        return {};
    }
    const std::uint64_t value = (static_cast<std::uint64_t>(*naa) << 60U) | (static_cast<std::uint64_t>(*oui) << 36U) |
                                static_cast<std::uint64_t>(*id);
    return value == 0 ? std::string() : fmt::format("0x{:016x}", value);
}

// NVMe counts data in units of 1000 blocks of 512 bytes.
constexpr double kNvmeDataUnit = 512'000;

}  // namespace

bool isGrowthFigure(Figure figure) {
    return std::find(kGrowthFigures.begin(), kGrowthFigures.end(), figure) != kGrowthFigures.end();
}

std::string_view figureName(Figure figure) { return textOf(figure).name; }

std::optional<Figure> figureNamed(std::string_view name) {
    for (const auto& entry : kFigureTexts) {
        if (entry.name == name) return entry.figure;
    }
    return std::nullopt;
}

std::string figureTitle(Figure figure) { return text::localized(textOf(figure).chinese, textOf(figure).english); }

Change changeBetween(const HealthSnapshot& stored, const HealthSnapshot& next) {
    if (stored.passed != next.passed) return Change::notable;
    Change change = Change::none;
    for (std::size_t i = 0; i < kFigureCount; ++i) {
        const auto figure = static_cast<Figure>(i);
        const auto& before = stored[figure];
        const auto& now = next[figure];
        if (before == now) continue;
        switch (figure) {
            case Figure::powerOnHours:
            case Figure::bytesWritten:
            case Figure::bytesRead: break;
            case Figure::temperature:
                if (before && now && std::abs(*now - *before) < kTemperatureStep) change = Change::small;
                else return Change::notable;
                break;
            default: return Change::notable;
        }
    }
    return change;
}

std::string DriveIdentity::key() const {
    if (!wwn.empty()) return "wwn:" + wwn;
    if (!serial.empty()) return "model-serial:" + model + "/" + serial;
    if (!backingFile.empty()) return "file:" + backingFile;
    return {};
}

std::optional<DriveReading> driveReadingFromJson(std::string_view smartctlJson, std::int64_t at,
                                                 std::string_view deviceHint) {
    const json document = json::parse(smartctlJson, nullptr, false);
    if (!document.is_object()) return std::nullopt;
    DriveReading reading;
    auto& identity = reading.identity;
    identity.wwn = wwnOf(document);
    identity.model = stringAt(document, "model_name");
    identity.serial = stringAt(document, "serial_number");
    identity.deviceHint = std::string(deviceHint);
    if (const json* device = find(document, "device"); device != nullptr && identity.deviceHint.empty()) {
        std::string name = stringAt(*device, "name");
        if (name.rfind("/dev/", 0) == 0) name.erase(0, 5);
        identity.deviceHint = name;
    }

    auto& snapshot = reading.snapshot;
    snapshot.at = at;
    if (const json* status = find(document, "smart_status")) {
        if (const json* passed = find(*status, "passed"); passed != nullptr && passed->is_boolean())
            snapshot.passed = passed->get<bool>();
    }
    const json* nvmeLog = find(document, "nvme_smart_health_information_log");
    const json nvme = nvmeLog != nullptr ? *nvmeLog : json::object();
    const auto nvmeNumber = [&nvme](std::string_view key) { return numberAt(nvme, {key}); };
    snapshot[Figure::temperature] = numberAt(document, {"temperature", "current"});
    snapshot[Figure::powerOnHours] = numberAt(document, {"power_on_time", "hours"});
    if (auto used = nvmeNumber("percentage_used")) {
        snapshot[Figure::percentageUsed] = used;
    } else {
        // ATA wear indicators count down from 100 (new) in their normalised value.
        for (const int id : {177, 231, 233}) {
            const json* row = ataAttribute(document, id);
            const auto normalised = row != nullptr ? numberAt(*row, {"value"}) : std::nullopt;
            if (normalised && *normalised >= 0 && *normalised <= 100) {
                snapshot[Figure::percentageUsed] = 100 - *normalised;
                break;
            }
        }
    }
    snapshot[Figure::reallocatedSectors] = ataRaw(document, {5});
    snapshot[Figure::pendingSectors] = ataRaw(document, {197});
    snapshot[Figure::uncorrectableSectors] = ataRaw(document, {198, 187});
    snapshot[Figure::crcErrors] = ataRaw(document, {199});
    snapshot[Figure::mediaErrors] = nvmeNumber("media_errors");
    snapshot[Figure::unsafeShutdowns] = nvme.contains("unsafe_shutdowns") ? nvmeNumber("unsafe_shutdowns")
                                                                          : ataRaw(document, {174, 192});
    const double blockSize = numberAt(document, {"logical_block_size"}).value_or(512);
    if (auto units = nvmeNumber("data_units_written")) snapshot[Figure::bytesWritten] = *units * kNvmeDataUnit;
    else if (auto lbas = ataRaw(document, {241})) snapshot[Figure::bytesWritten] = *lbas * blockSize;
    if (auto units = nvmeNumber("data_units_read")) snapshot[Figure::bytesRead] = *units * kNvmeDataUnit;
    else if (auto lbas = ataRaw(document, {242})) snapshot[Figure::bytesRead] = *lbas * blockSize;

    reading.criticalWarning = nvmeNumber("critical_warning");
    reading.temperatureLimit = numberAt(document, {"temperature", "op_limit_max"});
    if (!reading.temperatureLimit) reading.temperatureLimit = numberAt(document, {"temperature", "limit_max"});
    return reading;
}

}  // namespace vantorix::health
