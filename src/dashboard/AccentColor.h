#pragma once

#include <cstdint>

namespace vantorix::dashboard {

// The accent colours of cards and buttons, by name; the desktop app maps them to its palette.
enum class AccentColor { green, orange, mint, purple, blue, pink, teal, red, indigo };

// sRGB of an accent colour, 0xRRGGBB (the system accent hues the design was drawn with).
std::uint32_t accentRgb(AccentColor color);

}  // namespace vantorix::dashboard
