#include "text/Messages.h"

#include "text/Language.h"

#include <fmt/format.h>

namespace vantorix::text {
namespace {

// Both texts are built from the same values; the language rule picks one.
template <class... Values>
std::string compose(fmt::format_string<Values...> chinese, fmt::format_string<Values...> english, Values&&... values) {
    return isEnglish() ? fmt::format(english, std::forward<Values>(values)...)
                       : fmt::format(chinese, std::forward<Values>(values)...);
}

}  // namespace

std::string newVersionFound(std::string_view version) {
    return compose("发现新版本 {}", "New version found {}", version);
}

std::string downloadFailed(std::string_view reason) { return compose("下载失败：{}", "Download failed: {}", reason); }

std::string updateCheckFailed(std::string_view reason) {
    return compose("检查更新失败：{}", "Update check failed: {}", reason);
}

std::string feedbackAccepted(std::string_view feedbackId) {
    return compose("提交成功，反馈ID：{}", "Submitted successfully. Feedback ID: {}", feedbackId);
}

std::string feedbackServerError(int statusCode) {
    return compose("提交失败：服务器错误（{}）", "Submission failed: server error ({})", statusCode);
}

std::string sysfsReadFailed(std::string_view detail) {
    return compose("读取块设备的 sysfs 信息失败：{}。", "Reading the block device's sysfs entry failed: {}.", detail);
}

std::string reportExportFailed(std::string_view reason) {
    return compose("性能测试报告导出失败：\n{}", "Failed to export performance report:\n{}", reason);
}

std::string automaticReportExportFailed(std::string_view reason) {
    return compose("性能测试报告自动导出失败：\n{}", "Automatic performance report export failed:\n{}", reason);
}

std::string automaticReportSaved(std::string_view path) {
    return compose("性能测试完成，报告已自动保存至：{}", "Performance test finished. Report automatically saved to: {}",
                   path);
}

std::string randomTestSummary(std::string_view blockSizeText, std::uint64_t operationCount) {
    return compose("随机测试：块大小 {}，共 {} 次操作。", "Random test: block size {}, {} operations.", blockSizeText,
                   operationCount);
}

std::string chartExportSaved(std::string_view csvPath, std::string_view pngPath) {
    return compose("CSV 已保存至：{}\nPNG 已保存至：{}", "CSV saved to: {}\nPNG saved to: {}", csvPath, pngPath);
}

std::string chartExportFailed(std::string_view reason) { return compose("导出失败：{}", "Export failed: {}", reason); }

std::string latencyExportSaved(std::string_view latencyCsvPath) {
    return compose("延迟 CSV 已保存至：{}", "Latency CSV saved to: {}", latencyCsvPath);
}

std::string wholeDiskPayload(std::string_view sizeText) {
    return compose("数据量：全盘（{}）", "Payload: Full Disk ({})", sizeText);
}

std::string adjustedPayload(std::string_view chosenText, std::string_view adjustedText) {
    return compose("当前测试数据量：{}（预计自动调整为 {}）", "Current payload: {} (will adjust to {})", chosenText,
                   adjustedText);
}

std::string smartSheetTitle(std::string_view volumeName) {
    return compose("{} 的 SMART 信息", "SMART Details for {}", volumeName);
}

std::string versionLine(std::string_view version, std::string_view build) {
    return compose("版本：{} · 构建：{}", "Version: {} · Build: {}", version, build);
}

std::string exportingMetrics(std::size_t volumeCount, std::string_view address) {
    // Chinese counts without a plural; English says "1 volume" and "2 volumes".
    if (volumeCount == 1) {
        return compose("正在导出 {} 个卷的指标：http://{}/metrics 。按 Ctrl-C 停止。",
                       "Exporting the metrics of {} volume at http://{}/metrics. Press Ctrl-C to stop.", volumeCount,
                       address);
    }
    return compose("正在导出 {} 个卷的指标：http://{}/metrics 。按 Ctrl-C 停止。",
                   "Exporting the metrics of {} volumes at http://{}/metrics. Press Ctrl-C to stop.", volumeCount,
                   address);
}

std::string gigabytes(std::int64_t count) { return fmt::format("{} GB", count); }

}  // namespace vantorix::text
