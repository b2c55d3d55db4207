#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vantorix::text {

// Chinese is chosen when the first preferred language, lower-cased, contains "zh"; English
// otherwise and when the list is empty.
bool isEnglishFor(const std::vector<std::string>& languages);

// The language rule applied to preferredLanguages() (text/Locale.h). Never cached: a change of the
// environment takes effect with the next text that is made.
bool isEnglish();

// Picks one of the two texts by the language rule.
std::string localized(std::string_view chinese, std::string_view english);

}  // namespace vantorix::text
