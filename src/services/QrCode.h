#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantorix::services {

// A QR code's modules, row by row, without a quiet zone.
struct QrMatrix {
    int width = 0;
    std::vector<std::uint8_t> dark;  // width × width, 1 for a dark module

    bool isDark(int x, int y) const {
        return dark[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)] != 0;
    }
};

// `text`'s UTF-8 bytes as a QR code at error-correction level H; nothing when it cannot be made
// (empty or too long).
std::optional<QrMatrix> qrCode(std::string_view text);

// The integer factor by which a code `generatedWidth` modules wide is enlarged before it is drawn
// into a square of `displaySize` pixels: ceil(displaySize / generatedWidth), at least 1.
int qrScale(int displaySize, int generatedWidth);

// A `displaySize` × `displaySize` bitmap (1 = dark) of the code enlarged by qrScale() and then fitted
// into the square pixel by pixel (nearest module), so that every pixel is fully dark or fully light.
std::vector<std::uint8_t> qrBitmap(const QrMatrix& code, int displaySize);

// Shown in place of the code when none can be made.
std::string qrFailureText();
// "Contact WeChat: " + link, in the interface language.
std::string contactLine(std::string_view link);

}  // namespace vantorix::services
