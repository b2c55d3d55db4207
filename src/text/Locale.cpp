#include "text/Locale.h"

#include <cstdlib>
#include <string_view>

namespace vantorix::text {
namespace {

const char* nonEmptyEnv(const char* name) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? value : nullptr;
}

// "zh_CN.UTF-8@latin" → "zh_CN".
std::string_view withoutCodesetAndModifier(std::string_view value) {
    return value.substr(0, value.find_first_of(".@"));
}

// The portable locale names no language: "C", "POSIX", "C.UTF-8".
bool isNeutral(std::string_view value) {
    const auto name = withoutCodesetAndModifier(value);
    return name.empty() || name == "C" || name == "POSIX";
}

}  // namespace

std::vector<std::string> preferredLanguages() {
    std::vector<std::string> list;
    if (const char* language = nonEmptyEnv("LANGUAGE")) {
        std::string_view rest(language);
        while (!rest.empty()) {
            const auto colon = rest.find(':');
            const auto entry = rest.substr(0, colon);
            if (!isNeutral(entry)) list.emplace_back(entry);
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
        if (!list.empty()) return list;
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const char* value = nonEmptyEnv(name)) {
            if (!isNeutral(value)) list.emplace_back(value);
            return list;
        }
    }
    return list;
}

std::string localeId(LocaleCategory category) {
    const char* categoryVariable = category == LocaleCategory::numeric ? "LC_NUMERIC" : "LC_COLLATE";
    for (const char* name : {"LC_ALL", categoryVariable, "LANG"}) {
        if (const char* value = nonEmptyEnv(name)) {
            if (isNeutral(value)) return kPosixLocale;
            return std::string(withoutCodesetAndModifier(value));
        }
    }
    return kPosixLocale;
}

std::string currentNumberLocaleId() { return localeId(LocaleCategory::numeric); }

}  // namespace vantorix::text
