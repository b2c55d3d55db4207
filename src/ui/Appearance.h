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

namespace vantorix::ui {

// Some CJK fonts (WenQuanYi Micro Hei among them) claim symbols such as "℃" but draw nothing for
// them. When the application's font is such a font, a font that draws those symbols is put in
// front of it; the CJK font still draws what the other lacks.
void completeFontFallbacks();

}  // namespace vantorix::ui
