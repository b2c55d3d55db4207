#pragma once

#include <QApplication>
#include <QColor>
#include <QPalette>

namespace vantorix::ui {

// The application's palette for one test case: the desktop's light one, or a dark scheme's.
class ScopedScheme {
public:
    explicit ScopedScheme(bool dark) : saved_(QApplication::palette()) {
        if (!dark) return;
        QPalette palette(QColor(235, 235, 240), QColor(36, 36, 38));  // window text, window
        palette.setColor(QPalette::Base, QColor(48, 48, 52));
        palette.setColor(QPalette::AlternateBase, QColor(56, 56, 61));
        palette.setColor(QPalette::Text, QColor(235, 235, 240));
        palette.setColor(QPalette::Button, QColor(58, 58, 62));
        palette.setColor(QPalette::ButtonText, QColor(235, 235, 240));
        palette.setColor(QPalette::PlaceholderText, QColor(150, 150, 156));
        QApplication::setPalette(palette);
    }
    ~ScopedScheme() { QApplication::setPalette(saved_); }
    ScopedScheme(const ScopedScheme&) = delete;
    ScopedScheme& operator=(const ScopedScheme&) = delete;

private:
    QPalette saved_;
};

}  // namespace vantorix::ui
