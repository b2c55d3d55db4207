#include "ui/SegmentedControl.h"

#include <QFontMetrics>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>

#include "ui/Appearance.h"

namespace vantorix::ui {
namespace {

constexpr int kInset = 2;  // between the track and the raised segment
constexpr int kHorizontalPadding = 12;
constexpr int kVerticalPadding = 4;
constexpr double kTrackRadius = 8;
constexpr double kSegmentRadius = 6;

}  // namespace

SegmentedControl::SegmentedControl(QWidget* parent) : QWidget(parent) {
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void SegmentedControl::setLabels(const QStringList& labels) {
    if (labels == labels_) return;
    labels_ = labels;
    if (current_ >= labels_.size()) current_ = 0;
    if (!labels_.isEmpty()) setAccessibleName(labels_[current_]);
    updateGeometry();
    update();
}

void SegmentedControl::setCurrentIndex(int index) {
    if (index == current_ || index < 0 || index >= labels_.size()) return;
    current_ = index;
    setAccessibleName(labels_[current_]);
    update();
    Q_EMIT currentIndexChanged(current_);
}

QFont SegmentedControl::labelFont() const {
    QFont font = this->font();
    // The design's sizes are in points of a 72-per-inch screen, where a point is a pixel.
    font.setPixelSize(13);
    font.setWeight(QFont::DemiBold);
    return font;
}

int SegmentedControl::segmentWidth() const {
    const QFontMetrics metrics(labelFont());
    int widest = 0;
    for (const QString& label : labels_) widest = std::max(widest, metrics.horizontalAdvance(label));
    return widest + 2 * kHorizontalPadding;
}

QSize SegmentedControl::sizeHint() const {
    const QFontMetrics metrics(labelFont());
    const auto count = static_cast<int>(labels_.size());
    return {count * segmentWidth() + 2 * kInset, metrics.height() + 2 * kVerticalPadding + 2 * kInset};
}

QRect SegmentedControl::segmentRect(int index) const {
    const int segment = segmentWidth();
    return {kInset + index * segment, kInset, segment, height() - 2 * kInset};
}

void SegmentedControl::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor text = palette().color(QPalette::WindowText);
    QPainterPath track;
    track.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), kTrackRadius, kTrackRadius);
    painter.fillPath(track, withOpacity(text, isDark(palette()) ? 0.12 : 0.07));
    if (hasFocus()) {
        painter.setPen(QPen(palette().color(QPalette::Highlight), 1.5));
        painter.drawPath(track);
    }
    painter.setFont(labelFont());
    for (int i = 0; i < labels_.size(); ++i) {
        const QRect segment = segmentRect(i);
        if (i == current_) {
            QPainterPath raised;
            raised.addRoundedRect(QRectF(segment), kSegmentRadius, kSegmentRadius);
            painter.fillPath(raised, palette().color(QPalette::Base));
            painter.setPen(QPen(withOpacity(text, 0.14), 1));
            painter.drawPath(raised);
        }
        painter.setPen(withOpacity(text, i == current_ ? 1.0 : 0.68));
        painter.drawText(segment, Qt::AlignCenter, labels_[i]);
    }
}

void SegmentedControl::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    for (int i = 0; i < labels_.size(); ++i) {
        if (segmentRect(i).contains(event->position().toPoint())) setCurrentIndex(i);
    }
    event->accept();
}

void SegmentedControl::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Left) setCurrentIndex(current_ - 1);
    else if (event->key() == Qt::Key_Right) setCurrentIndex(current_ + 1);
    else QWidget::keyPressEvent(event);
}

void SegmentedControl::changeEvent(QEvent* event) {
    if (event->type() == QEvent::FontChange) updateGeometry();
    QWidget::changeEvent(event);
}

}  // namespace vantorix::ui
