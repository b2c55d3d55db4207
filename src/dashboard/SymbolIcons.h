#pragma once

#include <string_view>

namespace vantorix::dashboard {

// Where the picture of a symbol comes from: a freedesktop icon-theme name (a monochrome
// "-symbolic" icon that is tinted where it is drawn), and the bundled picture used when the
// desktop's theme has none.
struct SymbolIcon {
    std::string_view themeName;
    std::string_view fallback;  // the base name of a bundled SVG
};

// The icon of a symbol name ("internaldrive.fill", "play.fill", …); every symbol the program uses
// is in the table, and an unknown one gets a generic picture.
SymbolIcon symbolIcon(std::string_view symbol);

}  // namespace vantorix::dashboard
