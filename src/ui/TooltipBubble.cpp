#include "ui/TooltipBubble.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cmath>

namespace vantorix::ui {
namespace {

constexpr double bubbleHorizontalPadding = 12;
constexpr double bubbleVerticalPadding = 8;
constexpr double lineGap = 3;
constexpr double bubbleCornerRadius = 10;

QStringList figureLines(const GraphGeometry::TooltipLines& lines) {
    return QString::fromStdString(lines.secondary).split(QLatin1Char('\n'));
}

}  // namespace

QFont TooltipBubble::font(const QFont& base) {
    QFont font = base;
    // 12 logical pixels at Qt's 96 dpi reference, following the desktop's font resolution.
    font.setPointSizeF(9);
    return font;
}

QSizeF TooltipBubble::measure(const GraphGeometry::TooltipLines& lines, const QFont& font) {
    const QFontMetricsF metrics(font);
    const QStringList figures = figureLines(lines);
    double width = metrics.horizontalAdvance(QString::fromStdString(lines.primary));
    for (const QString& line : figures) width = std::max(width, metrics.horizontalAdvance(line));
    const auto count = static_cast<double>(figures.size());
    return {std::ceil(width + 2 * bubbleHorizontalPadding),
            std::ceil((1 + count) * metrics.height() + lineGap + 2 * bubbleVerticalPadding)};
}

void TooltipBubble::paint(QPainter& painter, QPointF origin, const GraphGeometry::TooltipLines& lines,
                          const QFont& font, const GraphPalette& colours) {
    const QSizeF size = measure(lines, font);
    const QFontMetricsF metrics(font);
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath outline;
    // Half a pixel in, so that the 1 px border lies on whole pixels.
    outline.addRoundedRect(QRectF(origin, size).adjusted(0.5, 0.5, -0.5, -0.5), bubbleCornerRadius, bubbleCornerRadius);
    painter.fillPath(outline, colours.bubbleBackground);
    painter.setPen(QPen(colours.bubbleBorder, 1));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(outline);

    painter.setFont(font);
    const double left = origin.x() + bubbleHorizontalPadding;
    const double firstBaseline = origin.y() + bubbleVerticalPadding + metrics.ascent();
    painter.setPen(colours.bubbleSecondaryText);
    painter.drawText(QPointF(left, firstBaseline), QString::fromStdString(lines.primary));
    painter.setPen(colours.bubbleText);
    double baseline = firstBaseline + lineGap;
    for (const QString& line : figureLines(lines)) {
        baseline += metrics.height();
        painter.drawText(QPointF(left, baseline), line);
    }
    painter.restore();
}

}  // namespace vantorix::ui
