#pragma once

#include <unicode/numberformatter.h>

#include <optional>
#include <string>

namespace vantorix::text {

// The UTF-8 text of a formatted ICU number; absent when formatting failed or gave nothing.
std::optional<std::string> toUtf8(const icu::number::FormattedNumber& formatted, UErrorCode& status);

}  // namespace vantorix::text
