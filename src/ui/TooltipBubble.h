#pragma once

#include <QFont>
#include <QPointF>
#include <QSizeF>

#include "charts/GraphGeometry.h"
#include "ui/GraphPalette.h"

class QPainter;

namespace vantorix::ui {

// The graph's hover tooltip: lines of text in a rounded bubble. The first line (time, elapsed,
// window) is quieter than the figures below it: the secondary text, one line per line feed.
class TooltipBubble {
public:
    // The unified text font of the bubble, made from the widget's font.
    static QFont font(const QFont& base);
    // The bubble's whole size for these lines, padding included.
    static QSizeF measure(const GraphGeometry::TooltipLines& lines, const QFont& font);
    // Draws the bubble with its top left at `origin`.
    static void paint(QPainter& painter, QPointF origin, const GraphGeometry::TooltipLines& lines, const QFont& font,
                      const GraphPalette& colours);
};

}  // namespace vantorix::ui
