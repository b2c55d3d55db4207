#pragma once

#include <string_view>

namespace vantorix::text {

// White space and line breaks: the Unicode space separators (Zs, the no-break spaces included),
// line and paragraph separators, tab, LF, VT, FF, CR and NEL.
bool isSpaceOrLineBreak(char32_t c);

// The text without white space and line breaks at either end. Ill-formed UTF-8 counts as text.
std::string_view trimmed(std::string_view text);

}  // namespace vantorix::text
