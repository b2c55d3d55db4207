#include "ui/Appearance.h"

namespace vantorix::ui {

QColor accentColor(dashboard::AccentColor color) { return QColor::fromRgb(dashboard::accentRgb(color)); }

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightnessF() < palette.color(QPalette::WindowText).lightnessF();
}

QColor withOpacity(QColor color, double opacity) {
    color.setAlphaF(static_cast<float>(color.alphaF() * opacity));
    return color;
}

}  // namespace vantorix::ui
