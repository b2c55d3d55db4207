#include "text/Language.h"
#include "text/Locale.h"

#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace vantorix::text {
namespace {

using testing::ScopedEnvironment;

TEST(LanguageRule, FirstPreferredLanguageContainingZhSelectsChinese) {
    struct Case {
        std::vector<std::string> languages;
        bool english;
    };
    const std::vector<Case> cases = {
        {{"zh-Hans-CN", "en-US"}, false},
        {{"en-US", "zh-Hans-CN"}, true},
        {{}, true},
        {{"ZH-TW"}, false},
        {{"zh"}, false},
        {{"de-DE", "zh-Hans"}, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isEnglishFor(c.languages), c.english) << (c.languages.empty() ? "(empty)" : c.languages[0]);
    }
}

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
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& c = cases[i];
        const ScopedEnvironment environment{
            {"LANGUAGE", c.language}, {"LC_ALL", c.lcAll}, {"LC_MESSAGES", c.lcMessages}, {"LANG", c.lang}};
        EXPECT_EQ(preferredLanguages(), c.expected) << "case " << i;
        EXPECT_EQ(isEnglish(), c.english) << "case " << i;
    }
}

}  // namespace
}  // namespace vantorix::text
