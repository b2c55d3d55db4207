#include "ui/Appearance.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFontInfo>
#include <QFontMetricsF>

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

namespace vantorix::ui {
namespace {

// Symbols the windows show that a font may claim without drawing them.
const QString kSymbolsToDraw = QStringLiteral("\u2103\u00B7");

bool drawsAll(const QFont& font) {
    const QFontMetricsF metrics(font);
    for (const QChar symbol : kSymbolsToDraw) {
        if (!metrics.inFont(symbol) || metrics.boundingRect(QString(symbol)).width() <= 0) return false;
    }
    return true;
}

}  // namespace

void completeFontFallbacks() {
    QFont font = QApplication::font();
    if (drawsAll(font)) return;
    const QString current = QFontInfo(font).family();
    for (const QString& family : QStringList{QStringLiteral("Noto Sans"), QStringLiteral("DejaVu Sans"),
                                             QStringLiteral("Liberation Sans"), QStringLiteral("FreeSans")}) {
        if (!QFontDatabase::hasFamily(family) || !drawsAll(QFont(family))) continue;
        font.setFamilies({family, current});
        QApplication::setFont(font);
        return;
    }
}

}  // namespace vantorix::ui
