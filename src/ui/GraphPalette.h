#pragma once

#include <QColor>
#include <QPalette>

namespace vantorix::ui {

// The throughput graph's colours for the desktop's light or dark scheme. Grids, the axis and the
// hover marker are the scheme's text colour at low opacity, as the graph draws white on dark and
// black on light; the read and write lines are a green and an orange that stay readable on both.
struct GraphPalette {
    bool dark = false;
    QColor text;           // the palette's text colour, opaque
    QColor secondaryText;  // axis labels
    QColor read;
    QColor write;
    QColor cardBackground;
    QColor bubbleBackground;
    QColor bubbleBorder;
    QColor bubbleText;
    QColor bubbleSecondaryText;

    // The colours for `palette`'s scheme (dark when its window is darker than its text).
    static GraphPalette of(const QPalette& palette);
};

}  // namespace vantorix::ui
