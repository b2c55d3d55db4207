#include "services/QrCode.h"

#include <qrencode.h>

#include <algorithm>
#include <memory>

#include "text/Language.h"

namespace vantorix::services {

std::optional<QrMatrix> qrCode(std::string_view text) {
    if (text.empty()) return std::nullopt;
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeData(static_cast<int>(text.size()), reinterpret_cast<const unsigned char*>(text.data()), 0,
                          QR_ECLEVEL_H),
        &QRcode_free);
    if (!code || code->width <= 0) return std::nullopt;
    QrMatrix matrix;
    matrix.width = code->width;
    const auto count = static_cast<std::size_t>(code->width) * static_cast<std::size_t>(code->width);
    matrix.dark.resize(count);
    // Bit 0 of each byte says whether the module is dark; the other bits describe its role.
    for (std::size_t i = 0; i < count; ++i) matrix.dark[i] = code->data[i] & 1u;
    return matrix;
}

int qrScale(int displaySize, int generatedWidth) {
    if (generatedWidth <= 0 || displaySize <= 0) return 1;
    return std::max((displaySize + generatedWidth - 1) / generatedWidth, 1);
}

std::vector<std::uint8_t> qrBitmap(const QrMatrix& code, int displaySize) {
    if (displaySize <= 0 || code.width <= 0) return {};
    const int scale = qrScale(displaySize, code.width);
    const int enlarged = code.width * scale;
    const auto size = static_cast<std::size_t>(displaySize);
    std::vector<std::uint8_t> bitmap(size * size);
    for (int y = 0; y < displaySize; ++y) {
        // The pixel's centre, in the enlarged picture, names the module it shows.
        const int moduleY = ((2 * y + 1) * enlarged / (2 * displaySize)) / scale;
        for (int x = 0; x < displaySize; ++x) {
            const int moduleX = ((2 * x + 1) * enlarged / (2 * displaySize)) / scale;
            bitmap[static_cast<std::size_t>(y) * size + static_cast<std::size_t>(x)] = code.isDark(moduleX, moduleY);
        }
    }
    return bitmap;
}

std::string qrFailureText() {
    return text::localized("二维码生成失败，请使用上方链接添加 WeChat。",
                           "The QR code could not be made; please use the link above to add us on WeChat.");
}

std::string contactLine(std::string_view link) {
    return text::localized("联系 WeChat：", "Contact WeChat: ") + std::string(link);
}

}  // namespace vantorix::services
