#include "text/Language.h"

#include <algorithm>

#include "text/Locale.h"

namespace vantorix::text {

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
