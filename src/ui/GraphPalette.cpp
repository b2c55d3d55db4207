#include "ui/GraphPalette.h"

#include "ui/Appearance.h"

namespace vantorix::ui {

GraphPalette GraphPalette::of(const QPalette& palette, GraphMeasure measure) {
    GraphPalette colours;
    colours.dark = isDark(palette);
    colours.text = palette.color(QPalette::WindowText);
    colours.text.setAlpha(255);
    colours.secondaryText = withOpacity(colours.text, 0.62);
    const QColor window = palette.color(QPalette::Window);
    const bool load = measure == GraphMeasure::load;
    if (colours.dark) {
        colours.read = load ? QColor(0x40, 0x9c, 0xff) : QColor(0x30, 0xd1, 0x58);
        colours.write = load ? QColor(0xda, 0x8f, 0xff) : QColor(0xff, 0x9f, 0x0a);
        colours.cardBackground = window.lighter(125);
        colours.bubbleBackground = QColor(0x3a, 0x3a, 0x3c, 245);
        colours.bubbleBorder = QColor(255, 255, 255, 40);
        colours.bubbleText = QColor(0xf5, 0xf5, 0xf7);
    } else {
        colours.read = load ? QColor(0x00, 0x6b, 0xd6) : QColor(0x1e, 0x9e, 0x48);
        colours.write = load ? QColor(0x9b, 0x3c, 0xc4) : QColor(0xe8, 0x6a, 0x00);
        colours.cardBackground = window.lightness() > 245 ? window.darker(104) : window.lighter(106);
        colours.bubbleBackground = QColor(255, 255, 255, 250);
        colours.bubbleBorder = QColor(0, 0, 0, 46);
        colours.bubbleText = QColor(0x1d, 0x1d, 0x1f);
    }
    colours.bubbleSecondaryText = withOpacity(colours.bubbleText, 0.7);
    return colours;
}

}  // namespace vantorix::ui
