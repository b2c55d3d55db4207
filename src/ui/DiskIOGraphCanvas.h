#pragma once

#include <QFont>
#include <QPointF>
#include <QRectF>
#include <QSize>
#include <QSizeF>
#include <QWidget>

#include <cstdint>
#include <memory>
#include <optional>

#include "charts/DiskIOGraphRendererCache.h"
#include "charts/GraphGeometry.h"
#include "charts/SampleWindow.h"
#include "concurrency/MainExecutor.h"
#include "concurrency/Subscription.h"

class QPainter;

namespace vantorix::ui {

struct GraphPalette;

// The live read and write throughput graph: 256 sample slots that fill from the right, a time
// axis in "ago" form below, a throughput axis on the right, pinch (or Ctrl + wheel) zoom,
// horizontal drag, and a hover marker with a tooltip. GraphGeometry decides everything; this
// widget paints it and forwards input.
//
// The samples' reduction to points runs off the main thread in the renderer cache; the widget
// repaints when the cache publishes points, so a batch of samples costs at most one repaint.
// Everything here is for the main thread.
class DiskIOGraphCanvas : public QWidget {
    Q_OBJECT

public:
    explicit DiskIOGraphCanvas(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent = nullptr);
    ~DiskIOGraphCanvas() override;

    // The newest samples of the monitor's history (at most GraphGeometry::totalSlotCount) and the
    // sampling interval they were taken at.
    void setSamples(SampleWindow samples, std::int64_t sampleIntervalMs);

    // The committed zoom and shift, owned by the dashboard. The setters emit their signal when
    // the value changes; so does a gesture that commits a new value.
    double scale() const { return scale_; }
    double offset() const { return offset_; }
    void setScale(double scale);
    void setOffset(double offset);

    // A pinch and a drag while they run (1 and 0 otherwise).
    double magnifyBy() const { return magnifyBy_; }
    double dragTranslation() const { return dragTranslation_; }

    // The plot inside the widget (axis labels lie outside it) and what it shows now.
    QRectF graphRect() const { return graphRect_; }
    GraphGeometry::Frame frame() const;
    const std::optional<IndexedSample>& hoveredSample() const { return hoveredSample_; }
    std::optional<GraphGeometry::TooltipLines> tooltipLines() const;
    // The tooltip's place in widget coordinates, when one shows.
    std::optional<QRectF> tooltipRect() const;
    QSizeF tooltipContentSize() const { return tooltipContentSize_; }
    // Whether the cache is still reducing samples for the next points.
    bool hasPendingPoints() const { return cache_->hasPendingWork(); }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

Q_SIGNALS:
    void scaleChanged(double scale);
    void offsetChanged(double offset);
    // The plot's size, whenever it changes.
    void chartSizeChanged(QSize size);

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    GraphGeometry::View view() const;
    GraphGeometry::Size graphSize() const;
    // Places the plot inside the widget, leaving room for the axis labels.
    void updateLayout();
    // Asks the cache for the visible samples' points. True when nothing is visible any more
    // while points were drawn: then no points arrive, and the caller repaints.
    bool requestPoints();
    void pointsPublished();
    void viewChanged();
    void hover(QPointF position);
    void setHoveredSample(std::optional<IndexedSample> sample);
    void pinch(double factor);
    void commitPinch();

    void paintGrid(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours) const;
    void paintLines(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours) const;
    void paintThroughputLabels(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours) const;
    void paintTimeLabels(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours) const;
    void paintHover(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours);

    std::shared_ptr<DiskIOGraphRendererCache> cache_;
    Subscription pointsSubscription_;
    SampleWindow samples_;
    std::int64_t sampleIntervalMs_ = 1000;
    bool pointsVisible_ = false;  // the last request had a visible range

    double scale_ = 1;
    double offset_ = 0;
    double magnifyBy_ = 1;
    double dragTranslation_ = 0;
    bool pinching_ = false;
    double pinchFactor_ = 1;
    double pendingWheelAngle_ = 0;
    std::optional<QPointF> pressPosition_;
    bool dragging_ = false;

    std::optional<QPointF> pointer_;  // where the pointer hovers, while it does
    std::optional<IndexedSample> hoveredSample_;
    QSizeF tooltipContentSize_;

    QFont axisFont_;
    QFont tooltipFont_;
    QRectF graphRect_;
};

}  // namespace vantorix::ui
