#include "ui/InteractiveButton.h"

#include <QEnterEvent>
#include <QPainter>
#include <QPainterPath>
#include <QStyleOptionFocusRect>

#include "ui/Appearance.h"
#include "ui/Symbols.h"

namespace vantorix::ui {
namespace {

constexpr int kSymbolSize = 16;
constexpr int kSymbolGap = 6;
constexpr double kCornerRadius = 10;

}  // namespace

InteractiveButton::InteractiveButton(StyleSize size, QWidget* parent) : QPushButton(parent), size_(size) {
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_Hover);
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    // A spring with a response of about 0.3 s and a little overshoot.
    animation_.setDuration(300);
    animation_.setEasingCurve(QEasingCurve::OutBack);
    connect(&animation_, &QVariantAnimation::valueChanged, this, [this](const QVariant& value) {
        opacity_ = value.toDouble();
        update();
    });
}

void InteractiveButton::setContent(const std::string& label, const std::string& symbol, dashboard::AccentColor accent,
                                   bool enabled) {
    const QString text = QString::fromStdString(label);
    if (text != this->text() || symbol != symbol_ || accent != accent_) {
        setText(text);
        setAccessibleName(text);
        symbol_ = symbol;
        accent_ = accent;
        updateGeometry();
        update();
    }
    setEnabled(enabled);
}

double InteractiveButton::targetOpacity() const {
    if (isDown()) return 0.85;
    if (hovering_) return 0.75;
    return 0.6;
}

QFont InteractiveButton::labelFont() const {
    QFont font = this->font();
    // The design's sizes are in points of a 72-per-inch screen, where a point is a pixel.
    font.setPixelSize(size_ == StyleSize::regular ? 15 : 13);
    font.setWeight(QFont::DemiBold);
    return font;
}

QSize InteractiveButton::sizeHint() const {
    const QFontMetrics metrics(labelFont());
    const int horizontal = size_ == StyleSize::regular ? 14 : 10;
    const int vertical = size_ == StyleSize::regular ? 10 : 6;
    const int contentWidth = kSymbolSize + kSymbolGap + metrics.horizontalAdvance(text());
    const int contentHeight = std::max(kSymbolSize, metrics.height());
    return {contentWidth + 2 * horizontal, contentHeight + 2 * vertical};
}

void InteractiveButton::animateTowardsState() {
    animation_.stop();
    animation_.setStartValue(opacity_);
    animation_.setEndValue(targetOpacity());
    animation_.start();
}

void InteractiveButton::enterEvent(QEnterEvent* event) {
    hovering_ = true;
    animateTowardsState();
    QPushButton::enterEvent(event);
}

void InteractiveButton::leaveEvent(QEvent* event) {
    hovering_ = false;
    animateTowardsState();
    QPushButton::leaveEvent(event);
}

void InteractiveButton::mousePressEvent(QMouseEvent* event) {
    QPushButton::mousePressEvent(event);
    animateTowardsState();
}

void InteractiveButton::mouseReleaseEvent(QMouseEvent* event) {
    QPushButton::mouseReleaseEvent(event);
    animateTowardsState();
}

void InteractiveButton::changeEvent(QEvent* event) {
    if (event->type() == QEvent::EnabledChange) update();
    QPushButton::changeEvent(event);
}

void InteractiveButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF area = QRectF(rect()).adjusted(1, 1, -1, -1);
    QPainterPath shape;
    shape.addRoundedRect(area, kCornerRadius, kCornerRadius);
    const QColor accent = accentColor(accent_);
    const bool enabled = isEnabled();
    painter.fillPath(shape, withOpacity(accent, enabled ? opacity_ : 0.25));
    if (hasFocus()) {
        painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
        painter.drawPath(shape);
    }
    // The label is white on a fill that comes out dark (a dark scheme, a pressed button) and near
    // black on one that comes out light; a disabled button fades it.
    const QColor window = palette().color(QPalette::Window);
    const double alpha = enabled ? opacity_ : 0.25;
    const auto mix = [&](int a, int w) { return alpha * a + (1 - alpha) * w; };
    const double luminance = (0.2126 * mix(accent.red(), window.red()) + 0.7152 * mix(accent.green(), window.green()) +
                              0.0722 * mix(accent.blue(), window.blue())) /
                             255.0;
    const QColor base = luminance > 0.62 ? QColor(0, 0, 0, 217) : QColor(Qt::white);
    const QColor ink = withOpacity(base, enabled ? 1.0 : 0.55);
    const QFont font = labelFont();
    const QFontMetrics metrics(font);
    const int textWidth = metrics.horizontalAdvance(text());
    const int contentWidth = kSymbolSize + kSymbolGap + textWidth;
    const int left = (width() - contentWidth) / 2;
    const QPixmap symbol = symbolPixmap(symbol_, ink, kSymbolSize, devicePixelRatioF());
    painter.drawPixmap(QPoint(left, (height() - kSymbolSize) / 2), symbol);
    painter.setFont(font);
    painter.setPen(ink);
    painter.drawText(QRect(left + kSymbolSize + kSymbolGap, 0, textWidth + 2, height()),
                     Qt::AlignLeft | Qt::AlignVCenter, text());
}

}  // namespace vantorix::ui
