#include "ui/DiskIOGraphCanvas.h"

#include <QFontMetricsF>
#include <QLineF>
#include <QList>
#include <QMouseEvent>
#include <QNativeGestureEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPen>
#include <QString>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "ui/Appearance.h"
#include "ui/GraphPalette.h"
#include "ui/TooltipBubble.h"

namespace vantorix::ui {
namespace {

constexpr double thinLine = 0.6;
constexpr double tickGridOpacity = 0.12;
constexpr double slotGridOpacity = 0.084;
constexpr double axisOpacity = 0.2;
constexpr double markerOpacity = 0.35;
constexpr double dotOutlineOpacity = 0.55;
constexpr double dotDiameter = 12;
constexpr double lineWidth = 1.8;
constexpr double labelGap = 6;  // between the plot and its axis labels
constexpr double timeLabelSpacing = 8;

QPointF toQt(GraphGeometry::Point point) { return {point.x, point.y}; }

QString qString(const std::string& text) { return QString::fromStdString(text); }

}  // namespace

DiskIOGraphCanvas::DiskIOGraphCanvas(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent)
    : QWidget(parent), cache_(DiskIOGraphRendererCache::create(std::move(mainExecutor))) {
    pointsSubscription_ = cache_->subscribe([this](const DiskIOGraphRendererCache::Points&) { pointsPublished(); });
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    updateLayout();
}

DiskIOGraphCanvas::~DiskIOGraphCanvas() = default;

QSize DiskIOGraphCanvas::sizeHint() const { return {640, 260}; }

QSize DiskIOGraphCanvas::minimumSizeHint() const { return {240, 140}; }

void DiskIOGraphCanvas::setSamples(SampleWindow samples, std::int64_t sampleIntervalMs) {
    const std::size_t previousCount = samples_.size();
    const bool intervalChanged = sampleIntervalMs != sampleIntervalMs_;
    const bool wereVisible = pointsVisible_;
    samples_ = std::move(samples);
    sampleIntervalMs_ = sampleIntervalMs;

    bool hoverChanged = false;
    if (samples_.size() != previousCount) {
        auto retargeted = GraphGeometry::retargeted(hoveredSample_, cache_->plottedSamples(),
                                                    static_cast<std::int64_t>(samples_.size()));
        hoverChanged = retargeted != hoveredSample_;
        hoveredSample_ = std::move(retargeted);
    }
    // When the cache is asked for points, their arrival repaints; the batch costs one repaint.
    if (!requestPoints() && (wereVisible || intervalChanged || hoverChanged)) update();
}

void DiskIOGraphCanvas::setScale(double scale) {
    if (scale == scale_) return;
    scale_ = scale;
    viewChanged();
    Q_EMIT scaleChanged(scale_);
}

void DiskIOGraphCanvas::setOffset(double offset) {
    if (offset == offset_) return;
    offset_ = offset;
    viewChanged();
    Q_EMIT offsetChanged(offset_);
}

GraphGeometry::View DiskIOGraphCanvas::view() const {
    GraphGeometry::View view =
        GraphGeometry::viewOf(static_cast<std::int64_t>(samples_.size()), scale_, offset_);
    view.magnifyBy = magnifyBy_;
    view.dragTranslation = dragTranslation_;
    return view;
}

GraphGeometry::Size DiskIOGraphCanvas::graphSize() const { return {graphRect_.width(), graphRect_.height()}; }

GraphGeometry::Frame DiskIOGraphCanvas::frame() const {
    return GraphGeometry::frame(view(), graphSize(), cache_->plottedSamples(), sampleIntervalMs_);
}

std::optional<GraphGeometry::TooltipLines> DiskIOGraphCanvas::tooltipLines() const {
    if (!hoveredSample_) return std::nullopt;
    return GraphGeometry::tooltipLines(*hoveredSample_, samples_, sampleIntervalMs_);
}

std::optional<QRectF> DiskIOGraphCanvas::tooltipRect() const {
    const auto lines = tooltipLines();
    if (!lines) return std::nullopt;
    const GraphGeometry::Frame shown = frame();
    const QSizeF size = TooltipBubble::measure(*lines, tooltipFont_);
    const auto marker = GraphGeometry::marker(*hoveredSample_, shown.slots, shown.yScale, graphSize());
    const auto origin = GraphGeometry::tooltipOrigin(marker, {size.width(), size.height()}, graphSize());
    return QRectF(toQt(origin) + graphRect_.topLeft(), size);
}

void DiskIOGraphCanvas::updateLayout() {
    // The axis font: 14 logical pixels (10.5 pt at Qt's 96 dpi reference, so it follows the
    // desktop's font resolution). Qt 6.4 cannot ask a font for tabular figures; the usual Linux
    // UI fonts (DejaVu, Noto, Cantarell) have digits of equal width already.
    axisFont_ = font();
    axisFont_.setPointSizeF(10.5);
    tooltipFont_ = TooltipBubble::font(font());

    const QFontMetricsF metrics(axisFont_);
    // Room for the widest throughput label in either language ("750 MB/s", "2.5 GB/秒"), so that
    // the plot keeps its width when the labels or the language change.
    const double number = std::max(metrics.horizontalAdvance(QStringLiteral("888 MB/")),
                                   metrics.horizontalAdvance(QStringLiteral("8.88 GB/")));
    const double unit = std::max(metrics.horizontalAdvance(QStringLiteral("s")),
                                 metrics.horizontalAdvance(QString::fromUtf8("秒")));
    const double gutter = std::ceil(labelGap + number + unit + 2);
    const double top = std::ceil(metrics.height() / 2);
    const double bottom = std::ceil(metrics.height() + labelGap);
    const QRectF graph(0, top, std::max(width() - gutter, 0.0), std::max(height() - top - bottom, 0.0));
    const bool resized = graph.size() != graphRect_.size();
    graphRect_ = graph;
    if (resized) Q_EMIT chartSizeChanged(graph.size().toSize());
}

bool DiskIOGraphCanvas::requestPoints() {
    const auto count = static_cast<std::int64_t>(samples_.size());
    const double width = graphRect_.width();
    const SampleRange range = GraphGeometry::visibleRange(count, GraphGeometry::slots(view(), width), width);
    pointsVisible_ = range.upper > range.lower;
    if (!pointsVisible_) return false;
    cache_->update(samples_, range, GraphGeometry::pointTargetCount(width), sampleIntervalMs_);
    return true;
}

void DiskIOGraphCanvas::pointsPublished() {
    // The hovered point follows its index into the new points, so its dots stay on the lines.
    hoveredSample_ = GraphGeometry::retargeted(hoveredSample_, cache_->plottedSamples(),
                                               static_cast<std::int64_t>(samples_.size()));
    update();
}

void DiskIOGraphCanvas::viewChanged() {
    requestPoints();
    // A zoom under a resting pointer moves the points; the hover goes to the one now under it.
    if (pointer_) hover(*pointer_);
    update();
}

void DiskIOGraphCanvas::setHoveredSample(std::optional<IndexedSample> sample) {
    if (sample == hoveredSample_) return;
    hoveredSample_ = std::move(sample);
    update();
}

void DiskIOGraphCanvas::hover(QPointF position) {
    pointer_ = position;
    const QPointF inGraph = position - graphRect_.topLeft();
    const GraphGeometry::Frame shown = frame();
    setHoveredSample(GraphGeometry::hoveredPoint(shown.drawn, shown.slots, graphSize(), {inGraph.x(), inGraph.y()}));
}

// ---- input ----

bool DiskIOGraphCanvas::event(QEvent* event) {
    if (event->type() != QEvent::NativeGesture) return QWidget::event(event);
    const auto* gesture = static_cast<QNativeGestureEvent*>(event);
    switch (gesture->gestureType()) {
    case Qt::BeginNativeGesture:
        pinching_ = true;
        pinchFactor_ = 1;
        break;
    case Qt::ZoomNativeGesture:
        // The platform reports how much the pinch's scale grew since the previous event.
        pinchFactor_ += gesture->value();
        pinch(pinchFactor_);
        // A zoom without begin and end (some platforms) commits as soon as it takes hold.
        if (!pinching_ && magnifyBy_ != 1) commitPinch();
        break;
    case Qt::EndNativeGesture:
        if (pinching_) commitPinch();
        break;
    default:
        return QWidget::event(event);
    }
    event->accept();
    return true;
}

void DiskIOGraphCanvas::pinch(double factor) {
    // A pinch takes hold once it has changed the zoom noticeably; from then on it follows.
    if (magnifyBy_ == 1 && std::abs(factor - 1) < GraphGeometry::zoomChangeThreshold) return;
    magnifyBy_ = factor;
    viewChanged();
}

void DiskIOGraphCanvas::commitPinch() {
    const double factor = magnifyBy_;
    pinching_ = false;
    pinchFactor_ = 1;
    magnifyBy_ = 1;
    if (factor == 1) return;
    const double committed = GraphGeometry::committedScale(scale_, factor);
    if (committed == scale_) {
        viewChanged();  // the magnified view returns to the committed one
        return;
    }
    setScale(committed);
}

void DiskIOGraphCanvas::wheelEvent(QWheelEvent* event) {
    if (!(event->modifiers() & Qt::ControlModifier)) {
        QWidget::wheelEvent(event);
        return;
    }
    event->accept();
    // High-resolution wheels send small steps; they add up until the zoom changes noticeably.
    pendingWheelAngle_ += event->angleDelta().y();
    const double factor = GraphGeometry::wheelZoomFactor(pendingWheelAngle_);
    if (std::abs(factor - 1) < GraphGeometry::zoomChangeThreshold) return;
    pendingWheelAngle_ = 0;
    setScale(GraphGeometry::committedScale(scale_, factor));
}

void DiskIOGraphCanvas::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    pressPosition_ = event->position();
    dragging_ = false;
    event->accept();
}

void DiskIOGraphCanvas::mouseMoveEvent(QMouseEvent* event) {
    if (!(event->buttons() & Qt::LeftButton) || !pressPosition_) {
        if (event->buttons() == Qt::NoButton) hover(event->position());
        return;
    }
    const QPointF moved = event->position() - *pressPosition_;
    if (!dragging_ && std::hypot(moved.x(), moved.y()) < GraphGeometry::dragMinimumDistance) return;
    if (!dragging_) {
        dragging_ = true;
        pointer_.reset();
        hoveredSample_.reset();
    }
    dragTranslation_ = moved.x();
    viewChanged();
}

void DiskIOGraphCanvas::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || !pressPosition_) {
        QWidget::mouseReleaseEvent(event);
        return;
    }
    const bool dragged = dragging_;
    const double translation = event->position().x() - pressPosition_->x();
    pressPosition_.reset();
    dragging_ = false;
    if (!dragged) return;
    const GraphGeometry::View committed =
        GraphGeometry::viewOf(static_cast<std::int64_t>(samples_.size()), scale_, offset_);
    const double offset = GraphGeometry::committedOffset(committed, graphRect_.width(), translation);
    dragTranslation_ = 0;
    if (offset == offset_) {
        viewChanged();
        return;
    }
    setOffset(offset);
}

void DiskIOGraphCanvas::leaveEvent(QEvent* event) {
    pointer_.reset();
    setHoveredSample(std::nullopt);
    QWidget::leaveEvent(event);
}

void DiskIOGraphCanvas::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    updateLayout();
    requestPoints();
}

void DiskIOGraphCanvas::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange) {
        updateLayout();
        viewChanged();
    } else if (event->type() == QEvent::PaletteChange) {
        update();
    }
}

// ---- painting ----

void DiskIOGraphCanvas::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::TextAntialiasing);
    const GraphPalette colours = GraphPalette::of(palette());
    const GraphGeometry::Frame shown = frame();
    painter.translate(graphRect_.topLeft());
    paintGrid(painter, shown, colours);
    paintThroughputLabels(painter, shown, colours);
    paintLines(painter, shown, colours);
    paintTimeLabels(painter, shown, colours);
    paintHover(painter, shown, colours);
}

void DiskIOGraphCanvas::paintGrid(QPainter& painter, const GraphGeometry::Frame& shown,
                                  const GraphPalette& colours) const {
    const double width = graphRect_.width();
    const double height = graphRect_.height();
    QList<QLineF> slotLines;
    for (const double x : GraphGeometry::slotGridPositions(shown.slots, width))
        if (x >= 0 && x <= width) slotLines.append(QLineF(x, 0, x, height));
    painter.setPen(QPen(withOpacity(colours.text, slotGridOpacity), thinLine));
    painter.drawLines(slotLines);

    QList<QLineF> tickLines;
    for (const auto& tick : shown.throughputTicks) {
        const double y = height - tick.position * height;
        tickLines.append(QLineF(0, y, width, y));
    }
    for (const auto& tick : shown.timeTicks) {
        const double x = tick.position * width;
        tickLines.append(QLineF(x, 0, x, height));
    }
    painter.setPen(QPen(withOpacity(colours.text, tickGridOpacity), thinLine));
    painter.drawLines(tickLines);
}

void DiskIOGraphCanvas::paintThroughputLabels(QPainter& painter, const GraphGeometry::Frame& shown,
                                              const GraphPalette& colours) const {
    const double width = graphRect_.width();
    const double height = graphRect_.height();
    painter.setPen(QPen(withOpacity(colours.text, axisOpacity), 1));
    painter.drawLine(QLineF(width, 0, width, height));

    painter.setFont(axisFont_);
    painter.setPen(colours.secondaryText);
    const QFontMetricsF metrics(axisFont_);
    for (const auto& label : GraphGeometry::throughputLabels(shown.throughputTicks)) {
        const double y = height - label.tick.position * height;
        const double baseline = y + (metrics.ascent() - metrics.descent()) / 2;
        painter.drawText(QPointF(width + labelGap, baseline), qString(label.text));
    }
}

void DiskIOGraphCanvas::paintLines(QPainter& painter, const GraphGeometry::Frame& shown,
                                   const GraphPalette& colours) const {
    if (shown.readLine.empty()) return;
    painter.save();
    // The lines may run past the plot's sides when zoomed; a flat line at 0 keeps its full width.
    painter.setClipRect(QRectF(0, -lineWidth, graphRect_.width(), graphRect_.height() + 2 * lineWidth));
    const auto stroke = [&](const std::vector<GraphGeometry::Point>& line, const QColor& colour) {
        QPen pen(colour, lineWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
        painter.setPen(pen);
        if (line.size() == 1) {
            painter.drawPoint(toQt(line.front()));
            return;
        }
        QPainterPath path(toQt(line.front()));
        for (std::size_t i = 1; i < line.size(); ++i) path.lineTo(toQt(line[i]));
        painter.drawPath(path);
    };
    stroke(shown.readLine, colours.read);
    stroke(shown.writeLine, colours.write);
    painter.restore();
}

void DiskIOGraphCanvas::paintTimeLabels(QPainter& painter, const GraphGeometry::Frame& shown,
                                        const GraphPalette& colours) const {
    const double width = graphRect_.width();
    const QFontMetricsF metrics(axisFont_);
    painter.setFont(axisFont_);
    painter.setPen(colours.secondaryText);
    const double baseline = graphRect_.height() + labelGap / 2 + metrics.ascent();
    // Labels end at their tick, from now (right) back in time (left). One that would leave the
    // widget or run into its right-hand neighbour is left out rather than moved off its tick.
    double freeUpTo = std::numeric_limits<double>::infinity();
    for (const auto& label : GraphGeometry::timeLabels(shown.timeTicks, sampleIntervalMs_)) {
        const QString text = qString(label.text);
        const double right = label.tick.position * width;
        const double left = right - metrics.horizontalAdvance(text);
        if (left < -graphRect_.left() || right > freeUpTo) continue;
        painter.drawText(QPointF(left, baseline), text);
        freeUpTo = left - timeLabelSpacing;
    }
}

void DiskIOGraphCanvas::paintHover(QPainter& painter, const GraphGeometry::Frame& shown, const GraphPalette& colours) {
    if (!hoveredSample_) return;
    const auto marker = GraphGeometry::marker(*hoveredSample_, shown.slots, shown.yScale, graphSize());

    // A marker moved off the plot by a zoom stays off the axis labels.
    painter.save();
    const double reach = dotDiameter / 2 + 1;
    painter.setClipRect(QRectF(-reach, -reach, graphRect_.width() + 2 * reach, graphRect_.height() + 2 * reach));
    QPen dashed(withOpacity(colours.text, markerOpacity), 1, Qt::CustomDashLine);
    dashed.setDashPattern({4, 4});
    painter.setPen(dashed);
    painter.drawLine(QLineF(marker.x, 0, marker.x, graphRect_.height()));

    painter.setPen(QPen(withOpacity(colours.text, dotOutlineOpacity), 1));
    const auto dot = [&](double y, const QColor& colour) {
        painter.setBrush(colour);
        painter.drawEllipse(QPointF(marker.x, y), dotDiameter / 2, dotDiameter / 2);
    };
    dot(marker.readY, colours.read);
    dot(marker.writeY, colours.write);
    painter.restore();

    const auto lines = GraphGeometry::tooltipLines(*hoveredSample_, samples_, sampleIntervalMs_);
    tooltipContentSize_ = TooltipBubble::measure(lines, tooltipFont_);
    const auto origin = GraphGeometry::tooltipOrigin(
        marker, {tooltipContentSize_.width(), tooltipContentSize_.height()}, graphSize());
    TooltipBubble::paint(painter, toQt(origin), lines, tooltipFont_, colours);
}

}  // namespace vantorix::ui
