#include "text/Messages.h"
#include "text/SystemError.h"

#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace vantorix::text {
namespace {

TEST(Messages, EachMessageInBothLanguages) {
    struct Case {
        const char* name;
        std::function<std::string()> make;
        std::string chinese, english;
    };
    // newVersionFound, the payload texts and the matching failure's usual code are checked where
    // they are used (Language_test, PayloadAndProgress_test, DiskVolumeResolver_test).
    const std::vector<Case> cases = {
        {"downloadFailed", [] { return downloadFailed("timeout"); }, "下载失败：timeout", "Download failed: timeout"},
        {"updateCheckFailed", [] { return updateCheckFailed("offline"); }, "检查更新失败：offline",
         "Update check failed: offline"},
        {"feedbackAccepted", [] { return feedbackAccepted("F-42"); }, "提交成功，反馈ID：F-42",
         "Submitted successfully. Feedback ID: F-42"},
        {"feedbackServerError", [] { return feedbackServerError(503); }, "提交失败：服务器错误（503）",
         "Submission failed: server error (503)"},
        {"sysfsReadFailed", [] { return sysfsReadFailed("/sys/class/block/sda/stat: malformed"); },
         "读取块设备的 sysfs 信息失败：/sys/class/block/sda/stat: malformed。",
         "Reading the block device's sysfs entry failed: /sys/class/block/sda/stat: malformed."},
        {"reportExportFailed", [] { return reportExportFailed("disk full"); }, "性能测试报告导出失败：\ndisk full",
         "Failed to export performance report:\ndisk full"},
        {"automaticReportExportFailed", [] { return automaticReportExportFailed("denied"); },
         "性能测试报告自动导出失败：\ndenied", "Automatic performance report export failed:\ndenied"},
        {"automaticReportSaved", [] { return automaticReportSaved("/mnt/x/r.html"); },
         "性能测试完成，报告已自动保存至：/mnt/x/r.html",
         "Performance test finished. Report automatically saved to: /mnt/x/r.html"},
        {"randomTestSummary", [] { return randomTestSummary("4 KB", 1234567); },
         "随机测试：块大小 4 KB，共 1234567 次操作。", "Random test: block size 4 KB, 1234567 operations."},
        {"randomTestSummary max",
         [] { return randomTestSummary("4 KB", std::numeric_limits<std::uint64_t>::max()); },
         "随机测试：块大小 4 KB，共 18446744073709551615 次操作。",
         "Random test: block size 4 KB, 18446744073709551615 operations."},
        {"chartExportSaved", [] { return chartExportSaved("/a.csv", "/a.png"); },
         "CSV 已保存至：/a.csv\nPNG 已保存至：/a.png", "CSV saved to: /a.csv\nPNG saved to: /a.png"},
        {"chartExportFailed", [] { return chartExportFailed("no data"); }, "导出失败：no data",
         "Export failed: no data"},
        {"smartSheetTitle", [] { return smartSheetTitle("Data"); }, "Data 的 SMART 信息", "SMART Details for Data"},
        {"versionLine", [] { return versionLine("0.1.0", "17"); }, "版本：0.1.0 · 构建：17",
         "Version: 0.1.0 · Build: 17"},
        {"exportingMetrics one", [] { return exportingMetrics(1, "127.0.0.1:9842"); },
         "正在导出 1 个卷的指标：http://127.0.0.1:9842/metrics 。按 Ctrl-C 停止。",
         "Exporting the metrics of 1 volume at http://127.0.0.1:9842/metrics. Press Ctrl-C to stop."},
        {"exportingMetrics two", [] { return exportingMetrics(2, "[::1]:80"); },
         "正在导出 2 个卷的指标：http://[::1]:80/metrics 。按 Ctrl-C 停止。",
         "Exporting the metrics of 2 volumes at http://[::1]:80/metrics. Press Ctrl-C to stop."},
        {"gigabytes", [] { return gigabytes(1000); }, "1000 GB", "1000 GB"},
        {"cause after a fixed sentence", [] { return withSystemError("Write phase failed.", ENOSPC); },
         "Write phase failed.设备上没有剩余空间。", "Write phase failed. No space left on device."},
        {"cause without a text of its own", [] { return systemErrorText(ENOTSUP); },
         "系统错误 95（Operation not supported）", "Operation not supported (error 95)"},
        {"values with braces", [] { return chartExportFailed("{0} {}"); }, "导出失败：{0} {}",
         "Export failed: {0} {}"},
    };
    for (const auto& c : cases) {
        {
            const testing::ScopedLanguage chinese("zh_CN.UTF-8");
            EXPECT_EQ(c.make(), c.chinese) << c.name;
        }
        const testing::ScopedLanguage english("en_US.UTF-8");
        EXPECT_EQ(c.make(), c.english) << c.name;
    }
}

}  // namespace
}  // namespace vantorix::text
