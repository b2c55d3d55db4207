#include "ui/Symbols.h"

#include <QDir>
#include <QHash>
#include <QImage>
#include <QPainter>
#include <QString>

#include <cmath>

#include "dashboard/SymbolIcons.h"

// Resources of a static library must be registered by name, outside any namespace.
static void registerSymbolResources() { Q_INIT_RESOURCE(icons); }

namespace vantorix::ui {
namespace {

QIcon sourceIcon(std::string_view symbol) {
    static const bool registered = (registerSymbolResources(), true);
    (void)registered;
    const auto names = dashboard::symbolIcon(symbol);
    QIcon themed = QIcon::fromTheme(
        QString::fromUtf8(names.themeName.data(), static_cast<qsizetype>(names.themeName.size())));
    if (!themed.isNull()) return themed;
    return QIcon(QStringLiteral(":/symbols/") +
                 QString::fromUtf8(names.fallback.data(), static_cast<qsizetype>(names.fallback.size())) +
                 QStringLiteral(".svg"));
}

// Dark, opaque pixels become the colour; light or transparent ones become clear.
QImage inked(QImage image, const QColor& color) {
    image = image.convertToFormat(QImage::Format_ARGB32);
    for (int y = 0; y < image.height(); ++y) {
        auto* row = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            const QRgb pixel = row[x];
            const double luminance = (0.2126 * qRed(pixel) + 0.7152 * qGreen(pixel) + 0.0722 * qBlue(pixel)) / 255.0;
            const double ink = qAlpha(pixel) / 255.0 * (1.0 - luminance) * color.alphaF();
            row[x] = qRgba(color.red(), color.green(), color.blue(), static_cast<int>(std::lround(ink * 255)));
        }
    }
    return image;
}

}  // namespace

QPixmap symbolPixmap(std::string_view symbol, const QColor& color, int logicalSize, qreal devicePixelRatio) {
    static QHash<QString, QPixmap> cache;
    const QString key = QString::fromUtf8(symbol.data(), static_cast<qsizetype>(symbol.size())) + QLatin1Char('|') +
                        color.name(QColor::HexArgb) + QLatin1Char('|') + QString::number(logicalSize) +
                        QLatin1Char('|') + QString::number(devicePixelRatio);
    if (const auto found = cache.constFind(key); found != cache.constEnd()) return *found;
    const int pixels = static_cast<int>(std::ceil(logicalSize * devicePixelRatio));
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        sourceIcon(symbol).paint(&painter, QRect(0, 0, pixels, pixels));
    }
    QPixmap pixmap = QPixmap::fromImage(inked(image, color));
    pixmap.setDevicePixelRatio(devicePixelRatio);
    cache.insert(key, pixmap);
    return pixmap;
}

QIcon symbolIcon(std::string_view symbol, const QColor& color, int logicalSize) {
    QIcon icon;
    icon.addPixmap(symbolPixmap(symbol, color, logicalSize, 1.0));
    icon.addPixmap(symbolPixmap(symbol, color, logicalSize, 2.0));
    return icon;
}

void chooseIconTheme() {
    const QString current = QIcon::themeName();
    if ((current.isEmpty() || current == QLatin1String("hicolor")) &&
        QDir(QStringLiteral("/usr/share/icons/Adwaita")).exists()) {
        QIcon::setThemeName(QStringLiteral("Adwaita"));
    }
}

}  // namespace vantorix::ui
