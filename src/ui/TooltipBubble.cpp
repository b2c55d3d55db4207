#include "ui/TooltipBubble.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>
#include <QString>

#include <algorithm>
#include <cmath>

namespace vantorix::ui {
namespace {

constexpr double bubbleHorizontalPadding = 12;
constexpr double bubbleVerticalPadding = 8;
constexpr double lineGap = 3;
constexpr double bubbleCornerRadius = 10;

}  // namespace

QFont TooltipBubble::font(const QFont& base) {
    QFont font = base;
    // 12 logical pixels at Qt's 96 dpi reference, following the desktop's font resolution.
    font.setPointSizeF(9);
    return font;
}

QSizeF TooltipBubble::measure(const GraphGeometry::TooltipLines& lines, const QFont& font) {
    const QFontMetricsF metrics(font);
    const double width = std::max(metrics.horizontalAdvance(QString::fromStdString(lines.primary)),
                                  metrics.horizontalAdvance(QString::fromStdString(lines.secondary)));
    return {std::ceil(width + 2 * bubbleHorizontalPadding),
            std::ceil(2 * metrics.height() + lineGap + 2 * bubbleVerticalPadding)};
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
    painter.drawPath(outline);

    painter.setFont(font);
    const double left = origin.x() + bubbleHorizontalPadding;
    const double firstBaseline = origin.y() + bubbleVerticalPadding + metrics.ascent();
    painter.setPen(colours.bubbleSecondaryText);
    painter.drawText(QPointF(left, firstBaseline), QString::fromStdString(lines.primary));
    painter.setPen(colours.bubbleText);
    painter.drawText(QPointF(left, firstBaseline + metrics.height() + lineGap),
                     QString::fromStdString(lines.secondary));
    painter.restore();
}

}  // namespace vantorix::ui
