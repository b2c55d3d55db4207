#include "cli/SmartHistory.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <ctime>

#include "cli/JsonOutput.h"
#include "cli/TextTable.h"
#include "text/Language.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;
using health::Figure;

std::string utcText(std::int64_t at) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(static_cast<std::time_t>(at)));
}

std::string localText(std::int64_t at) {
    return fmt::format("{:%Y-%m-%d %H:%M}", fmt::localtime(static_cast<std::time_t>(at)));
}

std::string numberText(double value) {
    if (value == static_cast<double>(static_cast<long long>(value)) && std::abs(value) < 1e15)
        return std::to_string(static_cast<long long>(value));
    return fmt::format("{:.1f}", value);
}

std::vector<Figure> allFigures() {
    std::vector<Figure> figures;
    for (std::size_t i = 0; i < health::kFigureCount; ++i) figures.push_back(static_cast<Figure>(i));
    return figures;
}

// The figures at least one reading has, in their order.
std::vector<Figure> figuresIn(const std::vector<health::HealthSnapshot>& readings) {
    std::vector<Figure> shown;
    for (const Figure figure : allFigures()) {
        if (std::any_of(readings.begin(), readings.end(), [figure](const auto& r) { return r[figure].has_value(); }))
            shown.push_back(figure);
    }
    return shown;
}

std::string passedText(const std::optional<bool>& passed) {
    if (!passed) return "";
    return *passed ? "PASSED" : "FAILED";
}

// Columns padded to their widest cell as the terminal shows it.
void printColumns(std::ostream& out, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - displayWidth(row[i]) + 2, ' ');
        }
        out << text::terminalText(line) << '\n';
    }
}

}  // namespace

Result<std::unique_ptr<health::HealthHistory>, std::string> openHealthHistory(const std::optional<std::string>& file) {
    const std::string path = file ? *file : health::HealthHistory::userPath();
    if (path.empty()) {
        return Failure{text::localized("没有 HOME 或 XDG_DATA_HOME，无法确定健康历史的位置；请用 --database 指定文件。",
                                       "Neither HOME nor XDG_DATA_HOME says where the health history belongs; "
                                       "name a file with --database.")};
    }
    return health::HealthHistory::open(path);
}

std::optional<std::chrono::seconds> parseDuration(std::string_view text) {
    if (text.empty()) return std::nullopt;
    long long count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || count < 0) return std::nullopt;
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    long long scale = 0;
    if (unit.empty() || unit == "s") scale = 1;
    else if (unit == "m") scale = 60;
    else if (unit == "h") scale = 3600;
    else if (unit == "d") scale = 86'400;
    else if (unit == "w") scale = 604'800;
    else return std::nullopt;
    if (count > (1LL << 40) / scale) return std::nullopt;
    return std::chrono::seconds(count * scale);
}

std::optional<std::string> recordAnswer(health::HealthHistory& history, std::string_view smartctlJson,
                                        const std::string& deviceName) {
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::system_clock::now().time_since_epoch());
    const auto reading = health::driveReadingFromJson(smartctlJson, now.count(), deviceName);
    if (!reading) return std::nullopt;
    auto recorded = history.record(reading->identity, reading->snapshot);
    if (!recorded) return recorded.error();
    return std::nullopt;
}

std::vector<health::Growth> growthAgainst(const health::HealthHistory& history, const std::string& key,
                                          const std::optional<health::HealthSnapshot>& current) {
    auto stored = history.growth(key);
    if (!stored) return {};
    std::vector<health::Growth> growth = std::move(stored).value();
    for (auto& entry : growth) {
        if (!current || !(*current)[entry.figure]) continue;
        entry.current = *(*current)[entry.figure];
        if (entry.current > entry.baseline && !entry.grewAt) entry.grewAt = current->at;
    }
    return growth;
}

ordered_json growthJson(const std::vector<health::Growth>& growth) {
    ordered_json list = ordered_json::array();
    for (const auto& entry : growth) {
        list.push_back({{"attribute", health::figureName(entry.figure)},
                        {"baseline", entry.baseline},
                        {"baselineSetAt", utcText(entry.baselineAt)},
                        {"current", entry.current},
                        {"growth", entry.amount()},
                        {"grewAt", entry.grewAt ? ordered_json(utcText(*entry.grewAt)) : ordered_json(nullptr)}});
    }
    return list;
}

ordered_json identityJson(const health::DriveIdentity& identity) {
    return {{"key", identity.key()},
            {"wwn", identity.wwn},
            {"model", identity.model},
            {"serial", identity.serial},
            {"device", identity.deviceHint}};
}

void printGrowth(std::ostream& out, const std::vector<health::Growth>& growth) {
    for (const auto& entry : growth) {
        if (entry.amount() <= 0) continue;
        const std::string since = entry.grewAt ? localText(*entry.grewAt) : localText(entry.baselineAt);
        out << text::terminalText(
                   text::isEnglish() ? fmt::format("{} grew by {} since {} (baseline {}, set {}).",
                                                   health::figureTitle(entry.figure), numberText(entry.amount()), since,
                                                   numberText(entry.baseline), localText(entry.baselineAt))
                                     : fmt::format("{}自 {} 起增加了 {}（基准 {}，设于 {}）。",
                                                   health::figureTitle(entry.figure), since, numberText(entry.amount()),
                                                   numberText(entry.baseline), localText(entry.baselineAt)))
            << '\n';
    }
}

void printHistory(std::ostream& out, HistoryFormat format, const health::DriveIdentity& identity,
                  const std::vector<health::HealthSnapshot>& readings, const std::vector<health::Growth>& growth) {
    const auto figures = figuresIn(readings);
    if (format == HistoryFormat::json) {
        ordered_json list = ordered_json::array();
        for (const auto& reading : readings) {
            ordered_json row{{"time", utcText(reading.at)},
                             {"passed", reading.passed ? ordered_json(*reading.passed) : ordered_json(nullptr)}};
            for (const Figure figure : allFigures()) {
                row[std::string(health::figureName(figure))] = reading[figure] ? ordered_json(*reading[figure])
                                                                               : ordered_json(nullptr);
            }
            list.push_back(std::move(row));
        }
        printJson(out,
                  {{"drive", identityJson(identity)}, {"readings", std::move(list)}, {"growth", growthJson(growth)}});
        return;
    }
    if (format == HistoryFormat::csv) {
        out << "time,passed";
        for (const Figure figure : allFigures()) out << ',' << health::figureName(figure);
        out << '\n';
        for (const auto& reading : readings) {
            out << utcText(reading.at) << ',' << (reading.passed ? (*reading.passed ? "1" : "0") : "");
            for (const Figure figure : allFigures()) {
                out << ',';
                if (reading[figure]) out << numberText(*reading[figure]);
            }
            out << '\n';
        }
        return;
    }
    const std::string who = identity.model.empty() ? identity.key() : identity.model + " " + identity.serial;
    out << text::terminalText(who) << '\n';
    if (readings.empty()) {
        out << text::localized("这段时间没有记录。", "Nothing was recorded in this time.") << '\n';
        return;
    }
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> heading{text::localized("时间", "Time"), text::localized("总体状态", "Overall Status")};
    for (const Figure figure : figures) heading.push_back(health::figureTitle(figure));
    rows.push_back(std::move(heading));
    for (const auto& reading : readings) {
        std::vector<std::string> row{localText(reading.at), passedText(reading.passed)};
        for (const Figure figure : figures) row.push_back(reading[figure] ? numberText(*reading[figure]) : "");
        rows.push_back(std::move(row));
    }
    printColumns(out, rows);
    printGrowth(out, growth);
}

}  // namespace vantorix::cli
