#pragma once

#include <QFont>
#include <QRect>
#include <QSize>
#include <QStringList>
#include <QWidget>

namespace vantorix::ui {

// A row of choices of which exactly one holds, drawn as one rounded track with the chosen segment
// raised on it. A press on a segment chooses it; with keyboard focus (Tab) the Left and Right keys
// move the choice, and a ring shows the focus. Equal segments, as wide as the widest label.
class SegmentedControl final : public QWidget {
    Q_OBJECT
public:
    explicit SegmentedControl(QWidget* parent = nullptr);

    // The segments' labels; the choice stays where it was while that segment still exists.
    void setLabels(const QStringList& labels);
    const QStringList& labels() const { return labels_; }
    int currentIndex() const { return current_; }
    // Emits currentIndexChanged when the choice changes; an index without a segment is ignored.
    void setCurrentIndex(int index);
    // Where segment `index` lies in the widget.
    QRect segmentRect(int index) const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return sizeHint(); }

Q_SIGNALS:
    void currentIndexChanged(int index);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    QFont labelFont() const;
    int segmentWidth() const;

    QStringList labels_;
    int current_ = 0;
};

}  // namespace vantorix::ui
