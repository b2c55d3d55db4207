#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

namespace vantorix::smart {

// Unicode lower case, independent of the locale.
std::string lowercased(std::string_view text);

// A readable name for a JSON member name that the catalogue does not know: "_" becomes a space and
// an upper-case ASCII letter after a lower-case letter or digit gets a space before it
// ("fooBarBaz_qux" → "foo Bar Baz qux"); trimmed; the member name itself when nothing is left.
std::string derivedName(std::string_view memberName);

// The text of a scalar JSON value: strings trimmed; booleans "Yes"/"No" or "是"/"否"; numbers in
// decimal style with grouping in en_US_POSIX or zh_CN, integers exactly (all 64-bit values) and
// other numbers with at most two fraction digits; null "<null>".
std::string formattedValue(const nlohmann::ordered_json& value, bool english);

}  // namespace vantorix::smart
