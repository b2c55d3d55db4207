#include "dashboard/SmartSheetContent.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "smart/SmartSheetTexts.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Messages.h"

namespace vantorix::dashboard {

SmartSheetContent smartSheetContent(const SmartSheetPayload& payload) {
    SmartSheetContent sheet;
    sheet.title = text::smartSheetTitle(payload.volumeName);
    sheet.note = smart::sheetNote();
    const auto& info = payload.info;
    if (info.overallStatus && !info.overallStatus->empty()) {
        sheet.summaryRows.emplace_back(smart::overallStatusLabel(), *info.overallStatus);
    }
    if (info.isCapable)
        sheet.summaryRows.emplace_back(smart::smartCapableLabel(), smart::capabilityText(*info.isCapable));
    sheet.detailRows.reserve(info.details.size());
    for (const auto& detail : info.details) sheet.detailRows.emplace_back(detail.displayName, detail.value);
    if (sheet.detailRows.empty()) sheet.emptyNote = smart::noDetailsNote();
    sheet.closeButton = text::localized("好", "OK");
    return sheet;
}

std::array<std::string, 2> smartSheetViewNames() {
    return {text::localized("当前", "Now"), text::localized("历史", "History")};
}

namespace {

std::string timeText(std::int64_t at) { return text::mediumDateTimeText(std::chrono::system_clock::from_time_t(at)); }

std::string countText(double value) { return text::decimalText(value, 0, 0); }

std::string growthSentence(const health::Growth& entry) {
    const std::string title = health::figureTitle(entry.figure);
    std::string sentence = text::isEnglish()
                               ? fmt::format("{} grew by {} since {} (baseline {})", title, countText(entry.amount()),
                                             timeText(entry.baselineAt), countText(entry.baseline))
                               : fmt::format("{}自 {} 起增加了 {}（基准 {}）", title, timeText(entry.baselineAt),
                                             countText(entry.amount()), countText(entry.baseline));
    if (entry.grewAt) {
        sentence += text::isEnglish() ? fmt::format("; first above it on {}", timeText(*entry.grewAt))
                                      : fmt::format("；首次高于基准：{}", timeText(*entry.grewAt));
    }
    return sentence + text::localized("。", ".");
}

}  // namespace

SmartHistoryContent smartHistoryContent(const health::DriveIdentity& drive, const std::vector<health::Growth>& growth) {
    SmartHistoryContent content;
    const std::string who = drive.model.empty() ? drive.key()
                            : drive.serial.empty()
                                ? drive.model
                                : drive.model + text::localized("（", " (") + drive.serial + text::localized("）", ")");
    content.note = text::isEnglish()
                       ? fmt::format(
                             "Readings of {}, stored while Vantorix watched the drive: whenever a figure "
                             "changed, and at least hourly.",
                             who)
                       : fmt::format("{} 的读数，在 Vantorix 监视该磁盘期间记录：数值变化时记录，且至少每小时一次。",
                                     who);
    for (const auto& entry : growth) {
        if (entry.amount() > 0) content.growth.push_back(growthSentence(entry));
    }
    content.grew = !content.growth.empty();
    if (growth.empty()) {
        content.growth.push_back(text::localized("该磁盘不报告任何健康磁盘不应增加的扇区或错误计数。",
                                                 "The drive reports none of the sector and error counts that a "
                                                 "healthy drive never increases."));
    } else if (!content.grew) {
        const auto [first, last] = std::minmax_element(
            growth.begin(), growth.end(), [](const auto& a, const auto& b) { return a.baselineAt < b.baselineAt; });
        const std::string set =
            first->baselineAt == last->baselineAt ? timeText(first->baselineAt)
            : text::isEnglish()
                ? fmt::format("between {} and {}", timeText(first->baselineAt), timeText(last->baselineAt))
                : fmt::format("{} 至 {} 之间", timeText(first->baselineAt), timeText(last->baselineAt));
        content.growth.push_back(
            text::isEnglish() ? fmt::format("No sector or error count has grown since its baseline (set {}).", set)
                              : fmt::format("自设定基准（{}）以来，各项扇区与错误计数均未增加。", set));
    }
    return content;
}

std::string smartHistoryLoadingNote() { return text::localized("正在读取历史记录…", "Reading the history…"); }

std::string smartHistoryMissingNote(const std::optional<std::string>& error) {
    if (error) return text::localized("无法读取磁盘的历史记录：", "The drive's history could not be read: ") + *error;
    return text::localized(
        "此磁盘还没有历史记录。Vantorix 在监视磁盘期间记录其 SMART 数值，存下读数后这里会显示图表。",
        "There is no history of this drive yet. Vantorix records its SMART figures while it watches the drive; "
        "the charts appear here once readings are stored.");
}

}  // namespace vantorix::dashboard
