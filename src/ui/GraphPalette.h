#pragma once

#include <QColor>
#include <QPalette>

#include "charts/GraphGeometry.h"

namespace vantorix::ui {

// The graph's colours for the desktop's light or dark scheme. Grids, the axis and the hover marker
// are the scheme's text colour at low opacity, as the graph draws white on dark and black on light;
// the read and write lines are a green and an orange that stay readable on both, the load view's
// busy and queue depth lines a blue and a purple.
struct GraphPalette {
    bool dark = false;
    QColor text;           // the palette's text colour, opaque
    QColor secondaryText;  // axis labels
    QColor read;           // the first line: read, or in the load view the busy share
    QColor write;          // the second line: write, or in the load view the average queue depth
    QColor cardBackground;
    QColor bubbleBackground;
    QColor bubbleBorder;
    QColor bubbleText;
    QColor bubbleSecondaryText;

    // The colours for `palette`'s scheme (dark when its window is darker than its text), with the
    // lines of `measure`.
    static GraphPalette of(const QPalette& palette, GraphMeasure measure = GraphMeasure::throughput);
};

}  // namespace vantorix::ui
