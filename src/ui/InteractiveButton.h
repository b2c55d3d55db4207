#pragma once

#include <QPushButton>
#include <QVariantAnimation>

#include <string>

#include "dashboard/AccentColor.h"

namespace vantorix::ui {

// The panel's button look: a rounded accent-coloured background at opacity 0.6, 0.75 while the
// pointer is over it and 0.85 while pressed, changing with a short spring; a white symbol and a
// semibold label (15 px regular, 13 px compact). A focus ring shows keyboard focus. Behaves as a
// QPushButton otherwise (keyboard, accessibility, clicked()).
class InteractiveButton final : public QPushButton {
    Q_OBJECT
public:
    enum class StyleSize { regular, compact };

    explicit InteractiveButton(StyleSize size = StyleSize::regular, QWidget* parent = nullptr);

    // Label, symbol, accent and whether it can be used, in one go (the dashboard recomputes them).
    void setContent(const std::string& label, const std::string& symbol, dashboard::AccentColor accent, bool enabled);
    const std::string& symbol() const { return symbol_; }
    dashboard::AccentColor accent() const { return accent_; }
    // The background opacity the button is heading for: 0.6, 0.75 or 0.85.
    double targetOpacity() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void animateTowardsState();
    QFont labelFont() const;

    StyleSize size_;
    std::string symbol_;
    dashboard::AccentColor accent_ = dashboard::AccentColor::blue;
    bool hovering_ = false;
    double opacity_ = 0.6;
    QVariantAnimation animation_;
};

}  // namespace vantorix::ui
