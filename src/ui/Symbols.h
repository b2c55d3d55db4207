#pragma once

#include <QColor>
#include <QIcon>
#include <QPixmap>

#include <string_view>

namespace vantorix::ui {

// A symbol ("play.fill", "internaldrive.fill", …) drawn in one colour: the desktop theme's
// symbolic icon when it has one, else the picture bundled with the program, used as ink (dark
// and opaque parts take the colour, light and transparent parts stay clear). Crisp at the device
// pixel ratio asked for.
QPixmap symbolPixmap(std::string_view symbol, const QColor& color, int logicalSize, qreal devicePixelRatio);

// The same as an icon with pictures for device pixel ratios 1 and 2.
QIcon symbolIcon(std::string_view symbol, const QColor& color, int logicalSize);

// Chooses the Adwaita theme when the platform names no icon theme of its own (as on a bare X
// server or the offscreen platform) and Adwaita is installed.
void chooseIconTheme();

}  // namespace vantorix::ui
