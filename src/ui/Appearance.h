#pragma once

#include <QColor>
#include <QPalette>

#include "dashboard/AccentColor.h"

namespace vantorix::ui {

QColor accentColor(dashboard::AccentColor color);

// Whether a palette is a dark scheme's: its window colour is darker than its text.
bool isDark(const QPalette& palette);

// `color` with its alpha multiplied by `opacity`.
QColor withOpacity(QColor color, double opacity);

}  // namespace vantorix::ui
