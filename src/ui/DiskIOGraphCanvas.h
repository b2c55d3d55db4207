#pragma once

#include <QFont>
#include <QImage>
#include <QPoint>
#include <QPointF>
#include <QRectF>
#include <QRegion>
#include <QSize>
#include <QSizeF>
#include <QTimer>
#include <QTransform>
#include <QWidget>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "charts/DiskIOGraphRendererCache.h"
#include "charts/GraphGeometry.h"
#include "charts/SampleWindow.h"
#include "concurrency/MainExecutor.h"
#include "concurrency/Subscription.h"

class QPainter;

namespace vantorix {
class SerialQueue;
}

namespace vantorix::ui {

struct GraphPalette;

// The live graph of read and write throughput, of read and write latency, or of the device's load
// (GraphMeasure): 256 sample slots that fill from the right, a time axis in "ago" form below, a
// value axis on the right, pinch (or Ctrl + wheel) zoom, horizontal drag, and a hover marker with
// a tooltip. GraphGeometry decides everything; this widget paints it and forwards input.
//
// The samples' reduction to points runs off the main thread in the renderer cache. Painting works
// with pictures in the device's pixels: a background (the card colour, grids and axis labels),
// drawn again only when the size, scale, ticks or colours change, and the plot, a copy of the
// background with the lines on it. When points arrive, the plot is drawn off the main thread and
// the widget repaints once it is there, so a batch of samples costs at most one repaint, which
// copies the plot. A paint for which no plot fits (a zoom, a drag, a resize) copies the background
// and strokes the lines itself. Either way the pixels are those of drawing everything directly.
// The widget paints its whole rectangle, in the card colour of the section around it. Everything
// here is for the main thread.
class DiskIOGraphCanvas : public QWidget {
    Q_OBJECT

public:
    // Samples redraw the graph at most 20 times a second: at 1 and 10 ms the lines then move by
    // 50 or 5 samples a step, and the graph costs a third of a redraw on every display frame.
    // Zoom, drag and hover still redraw at once.
    static constexpr std::chrono::milliseconds kSampleRedrawPeriod{50};

    explicit DiskIOGraphCanvas(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent = nullptr);
    ~DiskIOGraphCanvas() override;

    // The newest samples of the monitor's history (at most GraphGeometry::totalSlotCount) and the
    // sampling interval they were taken at.
    void setSamples(SampleWindow samples, std::int64_t sampleIntervalMs);

    // What the lines show; throughput at first. Zoom, shift and hover stay as they are.
    GraphMeasure measure() const { return measure_; }
    void setMeasure(GraphMeasure measure);
    // How the device takes requests, for the load tooltip's names and queue size.
    void setQueue(std::optional<BlockQueue> queue);

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
    // Whether samples wait for their turn to be drawn, the cache is still reducing them to points,
    // or their plot is being drawn.
    bool hasPendingPoints() const { return pointsTimer_.isActive() || cache_->hasPendingWork() || plotPending_; }

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
    // Where a paint lands on its device: a scale, and a translation split into whole device
    // pixels (where a picture is copied to) and the rest (which a picture is drawn with).
    struct DeviceMapping {
        double scaleX = 1;
        double scaleY = 1;
        double fractionX = 0;
        double fractionY = 0;
        QPoint origin;

        // The same apart from the origin.
        bool drawsLike(const DeviceMapping& other) const;
    };
    // Everything the background picture shows, and how it is drawn.
    struct BackgroundKey {
        DeviceMapping mapping;
        QImage::Format format = QImage::Format_ARGB32_Premultiplied;
        QSize pixels;
        QRectF graph;
        QFont font;
        QRgb card = 0;
        QRgb text = 0;
        QRgb secondaryText = 0;
        std::vector<double> slotLines;
        std::vector<GraphGeometry::AxisTick> throughputTicks;
        std::vector<GraphGeometry::AxisTick> timeTicks;
        std::int64_t sampleIntervalMs = 0;
        GraphMeasure measure = GraphMeasure::throughput;  // what the labels are written in

        // Equal, with slot lines that lie within a millionth of a pixel of each other.
        bool shows(const BackgroundKey& other) const;
    };
    struct Background {
        BackgroundKey key;
        QImage image;
    };
    // The background with the lines drawn on it.
    struct Plot {
        BackgroundKey background;
        std::vector<GraphGeometry::Point> readLine;
        std::vector<GraphGeometry::Point> writeLine;
        QRgb read = 0;
        QRgb write = 0;
        QImage image;

        // True when the picture is what `shown` in `colours` on the device of `key` looks like.
        bool shows(const BackgroundKey& key, const GraphGeometry::Frame& shown, const GraphPalette& colours) const;
    };

    // The mapping of a painter's device transform, when it only scales (alike in x and y) and shifts.
    static std::optional<DeviceMapping> mappingOf(const QTransform& toDevice);

    GraphGeometry::View view() const;
    GraphGeometry::Size graphSize() const;
    // Places the plot inside the widget, leaving room for the axis labels.
    void updateLayout();
    // Asks the cache for the visible samples' points. True when nothing is visible any more
    // while points were drawn: then no points arrive, and the caller repaints.
    bool requestPoints();
    void pointsPublished();
    // Starts drawing the plot of the current points off the main thread; repaints when it is there.
    void drawPlotAhead();
    // A drawn plot became the current one: repaints it with the next batch, or soon.
    // `changed`: where it differs from the one before; nothing when the background changed too.
    void plotArrived(const std::optional<QRect>& changed);
    void showArrivedPlot();
    // Where the plot's lines lie in the widget.
    QRect linesRect(const Plot& plot) const;
    void viewChanged();
    void hover(QPointF position);
    void setHoveredSample(std::optional<IndexedSample> sample);
    void pinch(double factor);
    void commitPinch();

    BackgroundKey backgroundKey(const DeviceMapping& mapping, QImage::Format format, const GraphGeometry::Frame& frame,
                                const GraphPalette& colours) const;
    // The background picture for `key`, drawn again when it shows something else.
    const QImage& background(const BackgroundKey& key, const GraphGeometry::Frame& frame, const GraphPalette& colours);
    void paintThroughputLabels(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours) const;
    void paintTimeLabels(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours) const;
    void paintHover(QPainter& painter, const GraphGeometry::Frame& frame, const GraphPalette& colours);

    std::shared_ptr<DiskIOGraphRendererCache> cache_;
    Subscription pointsSubscription_;
    SampleWindow samples_;
    std::int64_t sampleIntervalMs_ = 1000;
    GraphMeasure measure_ = GraphMeasure::throughput;
    std::optional<BlockQueue> queue_;
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

    std::shared_ptr<MainExecutor> mainExecutor_;
    std::optional<Background> background_;
    std::optional<Plot> plot_;       // the newest that arrived
    std::optional<Plot> plotAhead_;  // what the newest request draws, until it arrives
    // How the last paint that could use pictures drew, and into which pixel format.
    std::optional<std::pair<DeviceMapping, QImage::Format>> lastTarget_;
    // The newest plot request; a job that is no longer the newest does nothing, and its result is
    // dropped on arrival.
    std::shared_ptr<std::atomic<std::uint64_t>> plotRequest_ = std::make_shared<std::atomic<std::uint64_t>>(0);
    bool plotPending_ = false;
    // An arrived plot not yet repainted, and when the last batch came.
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kBatchFlowGap{40};
    static constexpr std::chrono::milliseconds kPlotShowDelay{20};
    QRegion unshownPlotRegion_;
    Clock::time_point lastSamplesAt_{};
    QTimer plotShowTimer_;
    Clock::time_point lastPointsAt_{};  // when samples last asked for points
    QTimer pointsTimer_;
    struct PlotBuffers;
    std::shared_ptr<PlotBuffers> plotBuffers_;
    // Held only here, so that a result arriving after the widget has gone sees it expired.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    // Declared last: destroyed first, finishing (or skipping) the jobs while the fields above exist.
    std::unique_ptr<SerialQueue> plotQueue_;
};

}  // namespace vantorix::ui
