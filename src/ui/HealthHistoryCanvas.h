#pragma once

#include <QFont>
#include <QPointF>
#include <QWidget>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "charts/HealthChart.h"
#include "health/DriveHealth.h"
#include "health/HealthHistory.h"

namespace vantorix::ui {

struct GraphPalette;

// The SMART sheet's charts of a drive's history: one band per figure over a shared time axis, on
// a card in the scheme's colours, with a marker and a bubble at the reading nearest the pointer.
// HealthChart decides everything; this widget paints it and forwards the pointer. Main thread.
class HealthHistoryCanvas final : public QWidget {
    Q_OBJECT
public:
    explicit HealthHistoryCanvas(QWidget* parent = nullptr);

    // The readings (oldest first) and growth to show, with the time the axis ends at (Unix seconds).
    void setHistory(std::vector<health::HealthSnapshot> readings, std::vector<health::Growth> growth, std::int64_t now);

    // The chart as laid out for the current size, and the hovered reading's index.
    const HealthChart& chart() const { return chart_; }
    std::optional<std::size_t> hoveredReading() const { return hovered_; }
    // The bubble's texts while a reading is hovered.
    std::optional<GraphGeometry::TooltipLines> tooltipLines() const;
    // Where the chart lies inside the widget (the card's padding around it).
    QPointF chartOrigin() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    // Lays the chart out for the current size and hovers the reading under the pointer, if any.
    void layOut();
    void paintPanel(QPainter& painter, const HealthChart::Panel& panel, const GraphPalette& colours) const;
    void paintHover(QPainter& painter, const GraphPalette& colours) const;

    std::vector<health::HealthSnapshot> readings_;
    std::vector<health::Growth> growth_;
    std::int64_t now_ = 0;
    HealthChart chart_;
    std::optional<QPointF> pointer_;  // in the chart's coordinates, while it is over the widget
    std::optional<std::size_t> hovered_;
    QFont axisFont_;
    QFont titleFont_;
    QFont tooltipFont_;
};

}  // namespace vantorix::ui
