#include "text/Language.h"

#include <algorithm>
#include <cstdlib>

namespace vantorix::text {
namespace {

const char* nonEmptyEnv(const char* name) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? value : nullptr;
}

bool isNeutralLocale(std::string_view value) {
    return value == "C" || value == "POSIX" || value.rfind("C.", 0) == 0;
}

}  // namespace

std::vector<std::string> preferredLanguages() {
    std::vector<std::string> list;
    if (const char* language = nonEmptyEnv("LANGUAGE")) {
        std::string_view rest(language);
        while (!rest.empty()) {
            const auto colon = rest.find(':');
            const auto entry = rest.substr(0, colon);
            if (!entry.empty() && !isNeutralLocale(entry)) list.emplace_back(entry);
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
        if (!list.empty()) return list;
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (const char* value = nonEmptyEnv(name)) {
            if (!isNeutralLocale(value)) list.emplace_back(value);
            return list;
        }
    }
    return list;
}

bool isEnglishFor(const std::vector<std::string>& languages) {
    std::string first = languages.empty() ? std::string("en") : languages.front();
    std::transform(first.begin(), first.end(), first.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return first.find("zh") == std::string::npos;
}

bool isEnglish() { return isEnglishFor(preferredLanguages()); }

std::string localized(std::string_view chinese, std::string_view english) {
    return std::string(isEnglish() ? english : chinese);
}

}  // namespace vantorix::text
