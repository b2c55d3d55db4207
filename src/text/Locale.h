#pragma once

#include <string>
#include <vector>

namespace vantorix::text {

// What the environment says about the user's languages and locale. Read afresh on every call, so
// a change of the environment takes effect with the next text that is made.

// The user's ordered list of preferred languages: LANGUAGE (colon-separated), else LC_ALL, else
// LC_MESSAGES, else LANG. "C" and "POSIX" (with or without a codeset), empty or unset values give
// an empty list.
std::vector<std::string> preferredLanguages();

// The locale of the POSIX ("C") environment, in which numbers and dates are written the same way
// everywhere.
inline constexpr const char* kPosixLocale = "en_US_POSIX";

enum class LocaleCategory { numeric, collation };

// The ICU locale id of a category: LC_ALL, else LC_NUMERIC or LC_COLLATE, else LANG, without
// ".codeset" and "@modifier". "C", "POSIX" or nothing set give "en_US_POSIX".
std::string localeId(LocaleCategory category);

// The locale numbers are written in: localeId(LocaleCategory::numeric).
std::string currentNumberLocaleId();

}  // namespace vantorix::text
