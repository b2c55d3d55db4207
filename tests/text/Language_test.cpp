#include "text/Language.h"
#include "text/Locale.h"
#include "text/Messages.h"
#include "text/SystemError.h"

#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vantorix::text {
namespace {

using testing::ScopedEnvironment;

// The first preferred language decides: Chinese when it contains "zh" in any case.
TEST(LanguageRule, LanguageThenLcAllThenLcMessagesThenLang) {
    using Value = std::optional<std::string>;
    struct Case {
        Value language, lcAll, lcMessages, lang;
        std::vector<std::string> expected;
        bool english;
    };
    const Value unset;
    const std::vector<Case> cases = {
        {"zh_CN:en_US", "en_US.UTF-8", unset, "en_US.UTF-8", {"zh_CN", "en_US"}, false},
        {"en_US:zh_CN", "zh_CN.UTF-8", unset, "zh_CN.UTF-8", {"en_US", "zh_CN"}, true},
        {unset, "zh_TW.UTF-8", "en_US.UTF-8", "en_US.UTF-8", {"zh_TW.UTF-8"}, false},
        {"", "", "", "ZH_TW", {"ZH_TW"}, false},
        {unset, unset, unset, unset, {}, true},
        {unset, unset, "zh_CN.UTF-8", "en_US.UTF-8", {"zh_CN.UTF-8"}, false},
        {unset, "C", unset, "zh_CN.UTF-8", {}, true},
        {"de_DE:zh_CN", unset, unset, "en_US.UTF-8", {"de_DE", "zh_CN"}, true},
        {"zh", unset, unset, "en_US.UTF-8", {"zh"}, false},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& c = cases[i];
        const ScopedEnvironment environment{
            {"LANGUAGE", c.language}, {"LC_ALL", c.lcAll}, {"LC_MESSAGES", c.lcMessages}, {"LANG", c.lang}};
        EXPECT_EQ(preferredLanguages(), c.expected) << "case " << i;
        EXPECT_EQ(isEnglish(), c.english) << "case " << i;
    }
}

TEST(Messages, EachMessageInBothLanguages) {
    struct Case {
        const char* name;
        std::function<std::string()> make;
        std::string chinese, english;
    };
    // Texts that fill in one value are mostly checked by the tests of their users; here, the others
    // and those with a rule of their own (counts, plurals, joined causes, braces in values).
    const std::vector<Case> cases = {
        {"sysfsReadFailed", [] { return sysfsReadFailed("/sys/class/block/sda/stat: malformed"); },
         "读取块设备的 sysfs 信息失败：/sys/class/block/sda/stat: malformed。",
         "Reading the block device's sysfs entry failed: /sys/class/block/sda/stat: malformed."},
        {"randomTestSummary", [] { return randomTestSummary("4 KB", 1234567); },
         "随机测试：块大小 4 KB，共 1234567 次操作。", "Random test: block size 4 KB, 1234567 operations."},
        {"exportingMetrics one", [] { return exportingMetrics(1, "127.0.0.1:9842"); },
         "正在导出 1 个卷的指标：http://127.0.0.1:9842/metrics 。按 Ctrl-C 停止。",
         "Exporting the metrics of 1 volume at http://127.0.0.1:9842/metrics. Press Ctrl-C to stop."},
        {"exportingMetrics two", [] { return exportingMetrics(2, "[::1]:80"); },
         "正在导出 2 个卷的指标：http://[::1]:80/metrics 。按 Ctrl-C 停止。",
         "Exporting the metrics of 2 volumes at http://[::1]:80/metrics. Press Ctrl-C to stop."},
        {"cause after a fixed sentence", [] { return withSystemError("Write phase failed.", ENOSPC); },
         "Write phase failed.设备上没有剩余空间。", "Write phase failed. No space left on device."},
        {"cause without a text of its own", [] { return systemErrorText(ENOTSUP); },
         "系统错误 95（Operation not supported）", "Operation not supported (error 95)"},
        {"values with braces", [] { return chartExportFailed("{0} {}"); }, "导出失败：{0} {}", "Export failed: {0} {}"},
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
