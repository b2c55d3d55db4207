#include "text/Formats.h"
#include "text/Language.h"
#include "text/Locale.h"
#include "text/Messages.h"
#include "text/SystemError.h"
#include "text/TerminalText.h"
#include "text/Trim.h"
#include "text/Utf8.h"

#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace vantorix::text {
namespace {

using testing::ScopedEnvironment;

constexpr std::uint64_t kTwoToThe63 = 9223372036854775808ULL;
constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr ByteUnits kSpeedUnits = ByteUnits::bytes | ByteUnits::kilobytes | ByteUnits::megabytes |
                                  ByteUnits::gigabytes | ByteUnits::terabytes;
constexpr ByteUnits kCapacityUnits = ByteUnits::gigabytes | ByteUnits::terabytes | ByteUnits::petabytes;

// Selects both the interface language and the number locale through LC_ALL.
struct ScopedLocale {
    explicit ScopedLocale(const std::string& lcAll) : environment{{"LANGUAGE", std::nullopt}, {"LC_ALL", lcAll}} {}
    ScopedEnvironment environment;
};
const std::string kEnglish = "en_US.UTF-8", kChinese = "zh_CN.UTF-8";

TEST(ByteCountText, UnitChoiceRoundingAndCarry) {
    struct Case {
        std::uint64_t bytes;
        ByteUnits units;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {0, kSpeedUnits, "0 B"},
        {1'000, kSpeedUnits, "1 KB"},
        {2'500, kSpeedUnits, "3 KB"},  // halves round away from zero, not to even
        {999'499, kSpeedUnits, "999 KB"},
        {999'500, kSpeedUnits, "1 MB"},  // 1000 KB after rounding moves up
        {999'999, ByteUnits::kilobytes | ByteUnits::megabytes, "1 MB"},
        {999'999, ByteUnits::kilobytes, "1,000 KB"},  // no larger unit to move to
        {1'250'000, kSpeedUnits, "1.3 MB"},
        {999'949'999, kSpeedUnits, "999.9 MB"},
        {999'950'000, kSpeedUnits, "1 GB"},
        {2'005'000'000, kSpeedUnits, "2.01 GB"},
        {kMax, kSpeedUnits, "18,446,744.07 TB"},
        {500'000'000, kCapacityUnits, "0.5 GB"},  // below the smallest allowed unit
        {999'995'000'000, kCapacityUnits, "1 TB"},
        {2'500'000'000'000'000, kCapacityUnits, "2.5 PB"},
        {kMax, ByteUnits::bytes, "18,446,744,073,709,551,615 B"},
        {999'999'999, ByteUnits::bytes | ByteUnits::gigabytes, "999,999,999 B"},
        {999'999'500, ByteUnits::kilobytes | ByteUnits::gigabytes, "1 GB"},  // carries across a gap
        {1'500, ByteUnits::none, "1,500 B"},
    };
    const ScopedLocale locale(kEnglish);
    for (const auto& c : cases) EXPECT_EQ(byteCountText(c.bytes, c.units), c.expected) << c.bytes;
    EXPECT_EQ(capacityText(5'000'000'000'000'000'000), "5,000 PB");
}

TEST(ByteCountText, NumberLocaleFromLcAllThenLcNumericThenLang) {
    using Value = std::optional<std::string>;
    struct Case {
        Value lcAll, lcNumeric, lang;
        std::string localeId, text;
    };
    const Value unset;
    const std::vector<Case> cases = {
        {"de_DE.UTF-8", "fr_FR.UTF-8", "en_US.UTF-8", "de_DE", "1.234.567,89 TB"},
        {unset, "fr_FR@euro", "de_DE.UTF-8", "fr_FR", "1\u202f234\u202f567,89 TB"},
        {"", "", "en_GB.ISO-8859-1", "en_GB", "1,234,567.89 TB"},
        {unset, unset, "C.UTF-8", "en_US_POSIX", "1234567.89 TB"},
        {"C", unset, "de_DE.UTF-8", "en_US_POSIX", "1234567.89 TB"},
    };
    for (const auto& c : cases) {
        const ScopedEnvironment environment{{"LC_ALL", c.lcAll}, {"LC_NUMERIC", c.lcNumeric}, {"LANG", c.lang}};
        EXPECT_EQ(currentNumberLocaleId(), c.localeId);
        EXPECT_EQ(byteCountText(1'234'567'890'123'456'789, kSpeedUnits), c.text) << c.localeId;
        // Collation follows the same rule with its own category.
        const ScopedEnvironment collation{{"LC_COLLATE", c.lcNumeric}, {"LC_NUMERIC", std::nullopt}};
        EXPECT_EQ(localeId(LocaleCategory::collation), c.localeId);
    }
}

// Speeds are clamped to 0 … 2^63 and rounded half away from zero; operation rates keep one fraction
// digit, rounded half to even. Both end in the language's "per second".
TEST(RateTexts, SpeedsAndOperationRates) {
    struct Speed {
        double bytesPerSecond;
        std::string speed, cardSpeed;
    };
    const std::vector<Speed> speeds = {
        {0, "0 B", "0 B"},
        {-5, "0 B", "0 B"},
        {kNaN, "0 B", "0 B"},
        {999.4, "999 B", "999 B"},
        {999.5, "1 KB", "1 KB"},
        {999'950'000, "1 GB", "1 GB"},
        {1.5e12, "1.5 TB", "1,500 GB"},
        {1e30, "9,223,372.04 TB", "9,223,372,036.85 GB"},  // clamped to 2^63
        {kInfinity, "9,223,372.04 TB", "9,223,372,036.85 GB"},
    };
    const std::vector<std::pair<double, std::string>> rates = {{0, "0"},        {-0.0, "0"},         {0.04, "0"},
                                                               {0.05, "0"},     {0.15, "0.2"},       {0.25, "0.2"},
                                                               {12.34, "12.3"}, {1234.56, "1,234.6"}};
    for (const auto& [lcAll, suffix] : {std::pair{kEnglish, "/s"}, std::pair{kChinese, "/秒"}}) {
        const ScopedLocale locale(lcAll);
        for (const auto& c : speeds) {
            EXPECT_EQ(speedText(c.bytesPerSecond), c.speed + suffix) << c.bytesPerSecond;
            EXPECT_EQ(cardSpeedText(c.bytesPerSecond), c.cardSpeed + suffix) << c.bytesPerSecond;
        }
        for (const auto& [rate, text] : rates) EXPECT_EQ(operationRateText(rate), text + suffix) << rate;
    }
}

TEST(TotalBytesText, ZeroTextAndCapAtTwoToThe63) {
    const std::pair<std::uint64_t, std::string> cases[] = {{0, "0 Bytes"},
                                                           {1'500'000, "1.5 MB"},
                                                           {kTwoToThe63 - 1, "9,223,372.04 TB"},
                                                           {kTwoToThe63, "9,223,372.04 TB+"},
                                                           {kMax, "9,223,372.04 TB+"}};
    const ScopedLocale english(kEnglish);
    for (const auto& [bytes, text] : cases) EXPECT_EQ(totalBytesText(bytes), text) << bytes;
    const ScopedLocale chinese(kChinese);  // only the zero text is a word of its own
    EXPECT_EQ(totalBytesText(0), "0 字节");
}

TEST(DurationText, ThresholdsUnitsAndAgo) {
    struct Case {
        double milliseconds;
        std::string english, englishAgo, chinese, chineseAgo;
    };
    const std::vector<Case> cases = {
        {-20, "0 ms", "0", "0 毫秒", "0"},
        {kNaN, "0 ms", "0", "0 毫秒", "0"},
        {0.4, "0 ms", "0", "0 毫秒", "0"},
        {0.5, "1 ms", "1 ms ago", "1 毫秒", "1 毫秒前"},
        {999.4, "999 ms", "999 ms ago", "999 毫秒", "999 毫秒前"},
        {999.6, "1000 ms", "1000 ms ago", "1000 毫秒", "1000 毫秒前"},  // rounded after the threshold test
        {1'000, "1 s", "1 s ago", "1 秒", "1 秒前"},
        {1'234, "1.23 s", "1.23 s ago", "1.23 秒", "1.23 秒前"},
        {59'999, "60 s", "60 s ago", "60 秒", "60 秒前"},
        {60'000, "1 min", "1 min ago", "1 分钟", "1 分钟前"},
        {3'599'999, "60 min", "60 min ago", "60 分钟", "60 分钟前"},
        {7'200'000, "2 h", "2 h ago", "2 小时", "2 小时前"},
        {3'600'000'000, "1,000 h", "1,000 h ago", "1,000 小时", "1,000 小时前"},
    };
    for (const auto& c : cases) {
        const ScopedLocale english(kEnglish);
        EXPECT_EQ(durationText(c.milliseconds, false), c.english) << c.milliseconds;
        EXPECT_EQ(durationText(c.milliseconds, true), c.englishAgo) << c.milliseconds;
        const ScopedLocale chinese(kChinese);
        EXPECT_EQ(durationText(c.milliseconds, false), c.chinese) << c.milliseconds;
        EXPECT_EQ(durationText(c.milliseconds, true), c.chineseAgo) << c.milliseconds;
    }
}

TEST(NumberTexts, PosixDecimalIgnoresTheUsersLocale) {
    struct Case {
        double value;
        std::string expected;
    };
    const std::vector<Case> cases = {{2.5, "2.5"}, {8, "8"},    {2.345, "2.34"},    {2.355, "2.36"},
                                     {0.004, "0"}, {-0.0, "0"}, {1234.5, "1234.5"}, {5e9, "5000000000"}};
    for (const char* lcAll : {"de_DE.UTF-8", "C"}) {
        const ScopedLocale locale(lcAll);
        for (const auto& c : cases) EXPECT_EQ(posixDecimalText(c.value), c.expected) << lcAll << ' ' << c.value;
    }
}

TEST(NumberTexts, DecimalPercentAndUpperCaseFollowTheNumberLocale) {
    struct Case {
        std::string lcAll, decimal, fixedTwo, percent, wholePercent, upper;
    };
    const std::vector<Case> cases = {
        {"en_US.UTF-8", "1,234.5", "3.00", "12.5%", "100%", "ISO9660"},
        {"de_DE.UTF-8", "1.234,5", "3,00", "12,5\u00a0%", "100\u00a0%", "ISO9660"},
        {"tr_TR.UTF-8", "1.234,5", "3,00", "%12,5", "%100", "\u0130SO9660"},
    };
    for (const auto& c : cases) {
        const ScopedLocale locale(c.lcAll);
        EXPECT_EQ(decimalText(1234.5, 0, 2), c.decimal) << c.lcAll;
        EXPECT_EQ(decimalText(3, 2, 2), c.fixedTwo) << c.lcAll;
        EXPECT_EQ(percentText(0.125, 1), c.percent) << c.lcAll;
        EXPECT_EQ(percentText(0.9996, 1), c.wholePercent) << c.lcAll;
        EXPECT_EQ(upperCasedForCurrentLocale("iso9660"), c.upper) << c.lcAll;
    }
    const ScopedLocale english(kEnglish);
    EXPECT_EQ(decimalText(1.5, 3, 1), "1.500");  // a maximum below the minimum is raised to it
    EXPECT_EQ(upperCasedForCurrentLocale("straße"), "STRASSE");
}

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

const std::string kReplacement = "\uFFFD";

TEST(Utf8, IllFormedSequencesBecomeOneReplacementEachAndTrimmingNeverCutsThem) {
    struct Case {
        std::string bytes;
        bool valid;
        std::string lossy;
    };
    const std::vector<Case> cases = {
        {"", true, ""},
        {"plain ASCII", true, "plain ASCII"},
        {"标题 € \U0001F468", true, "标题 € \U0001F468"},
        {std::string("a\0b", 3), true, std::string("a\0b", 3)},
        {"Bad\xff\xfeName", false, "Bad" + kReplacement + kReplacement + "Name"},
        {"\xc0\xaf", false, kReplacement + kReplacement},                                        // an overlong "/"
        {"\xed\xa0\x80", false, kReplacement + kReplacement + kReplacement},                     // a surrogate
        {"\xf4\x90\x80\x80", false, kReplacement + kReplacement + kReplacement + kReplacement},  // past U+10FFFF
        {"\xe2\x82", false, kReplacement},  // cut off: one maximal subpart
        {"x\xe2\x82y\xf0\x9f\x98", false, "x" + kReplacement + "y" + kReplacement},
        {"\x80\xbf", false, kReplacement + kReplacement},  // stray continuation bytes
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isValidUtf8(c.bytes), c.valid) << c.bytes;
        EXPECT_EQ(lossyUtf8(c.bytes), c.lossy) << c.bytes;
        EXPECT_TRUE(isValidUtf8(lossyUtf8(c.bytes))) << c.bytes;
    }
    // Trimming takes white space and line breaks of any script, never ill-formed bytes.
    const std::vector<std::pair<std::string, std::string>> trims = {
        {"\u3000 \t\n\u00A0a b\u2028 \r\n", "a b"},
        {"\u0085x\u2029\v\f", "x"},
        {"\u200Bzero width\u200B", "\u200Bzero width\u200B"},  // not a space separator
        {std::string("\xff \xe2\x80", 4), std::string("\xff \xe2\x80", 4)},
        {" \xc3", "\xc3"},
    };
    for (const auto& [text, expected] : trims) EXPECT_EQ(trimmed(text), expected) << text;
}

TEST(TerminalText, ControlCharactersShowAsVisibleEscapesAndNothingElseChanges) {
    struct Case {
        std::string bytes, text, lines;  // text: terminalText's, lines: terminalLines'
    };
    const std::vector<Case> cases = {
        {"Samsung SSD 980 标题 € \U0001F468", "Samsung SSD 980 标题 € \U0001F468", "Samsung SSD 980 标题 € \U0001F468"},
        {"EVIL\a\nROW", "EVIL\\x07\\nROW", "EVIL\\x07\nROW"},  // ESC sequences: the command-line tests
        {std::string("\0\x7f", 2), "\\x00\\x7f", "\\x00\\x7f"},
        {"\u009b31m \u0085 \u00a0", "\\u009b31m \\u0085 \u00a0", "\\u009b31m \\u0085 \u00a0"},  // C1; NBSP stays
        {"Bad\xff\x9bName", "Bad\uFFFD\uFFFDName", "Bad\uFFFD\uFFFDName"},  // a lone 0x9B byte is not C1
    };
    for (const auto& c : cases) {
        EXPECT_EQ(terminalText(c.bytes), c.text) << c.bytes;
        EXPECT_EQ(terminalLines(c.bytes), c.lines) << c.bytes;
    }
}

}  // namespace
}  // namespace vantorix::text
