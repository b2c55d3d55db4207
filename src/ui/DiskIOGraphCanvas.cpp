#include "ui/DiskIOGraphCanvas.h"

#include <QFontMetricsF>
#include <QLineF>
#include <QList>
#include <QMouseEvent>
#include <QNativeGestureEvent>
#include <QPaintEngine>
#include <QPainter>
#include <QPainterPath>
#include <QPen>
#include <QPolygonF>
#include <QString>
#include <QVarLengthArray>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "concurrency/SerialQueue.h"
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

// The slot grid lines' x positions within a plot `width` wide.
std::vector<double> slotLines(const GraphGeometry::Slots& slots, double width) {
    std::vector<double> lines;
    for (const double x : GraphGeometry::slotGridPositions(slots, width))
        if (x >= 0 && x <= width) lines.push_back(x);
    return lines;
}

// The plot's grid: the slot lines, then the tick lines (across at the throughput ticks, down at
// the time ticks) in one stroke, in a plot `width` × `height` with the painter at its top left.
struct Grid {
    std::vector<double> slotXs;
    std::vector<double> tickXs;
    std::vector<double> tickYs;
    double width = 0;
    double height = 0;
    QPen slotPen;
    QPen tickPen;

    Grid(std::vector<double> slots, const std::vector<GraphGeometry::AxisTick>& throughputTicks,
         const std::vector<GraphGeometry::AxisTick>& timeTicks, QSizeF plot, const QColor& text)
        : slotXs(std::move(slots)),
          width(plot.width()),
          height(plot.height()),
          slotPen(withOpacity(text, slotGridOpacity), thinLine),
          tickPen(withOpacity(text, tickGridOpacity), thinLine) {
        for (const auto& tick : throughputTicks) tickYs.push_back(height - tick.position * height);
        for (const auto& tick : timeTicks) tickXs.push_back(tick.position * width);
    }

    // The whole grid is draw(painter, 0, height). With other bounds, the lines down run from `top`
    // to `bottom` only (none when `bottom` is not below `top`), and `across` leaves out the others.
    void draw(QPainter& painter, double top, double bottom, bool across = true) const {
        const bool down = bottom > top;
        QList<QLineF> lines;
        if (down) {
            for (const double x : slotXs) lines.append(QLineF(x, top, x, bottom));
            painter.setPen(slotPen);
            painter.drawLines(lines);
            lines.clear();
        }
        if (across)
            for (const double y : tickYs) lines.append(QLineF(0, y, width, y));
        if (down)
            for (const double x : tickXs) lines.append(QLineF(x, top, x, bottom));
        painter.setPen(tickPen);
        painter.drawLines(lines);
    }
};

// Strokes the polyline through `line` with `pen`.
//
// The line is drawn as its separate segments, each with flat ends meeting at the points. Qt strokes
// a wide antialiased polyline as one shape with joins, and for the long zigzag of a busy device its
// rasteriser takes many times longer on that shape than on the same segments one by one (a
// 256-point zigzag: about 8 ms against 1 ms). The joins are all the segments lack: at 1.8 pixels,
// the outer corner of a turn, under half a pixel deep.
void strokeLine(QPainter& painter, const std::vector<GraphGeometry::Point>& line, const QPen& pen) {
    painter.setPen(pen);
    if (line.size() == 1) {
        painter.drawPoint(toQt(line.front()));
        return;
    }
    QVarLengthArray<QLineF, 512> segments;
    for (std::size_t i = 1; i < line.size(); ++i) segments.append(QLineF(toQt(line[i - 1]), toQt(line[i])));
    painter.drawLines(segments.constData(), static_cast<int>(segments.size()));
}

// Strokes `line` broken where its points lie at GraphGeometry::gapY: each unbroken run as strokeLine
// strokes a whole line, and a point alone between two gaps as a dot twice the line's width across.
void strokeRuns(QPainter& painter, const std::vector<GraphGeometry::Point>& line, const QPen& pen) {
    const auto isGap = [](const GraphGeometry::Point& point) { return !std::isfinite(point.y); };
    if (std::none_of(line.begin(), line.end(), isGap)) {
        strokeLine(painter, line, pen);
        return;
    }
    // Every run's segments in one call, as strokeLine draws them; then the lone points.
    QVarLengthArray<QLineF, 512> segments;
    QVarLengthArray<QPointF, 256> dots;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (isGap(line[i])) continue;
        const bool joinsPrevious = i > 0 && !isGap(line[i - 1]);
        const bool joinsNext = i + 1 < line.size() && !isGap(line[i + 1]);
        if (joinsNext) segments.append(QLineF(toQt(line[i]), toQt(line[i + 1])));
        else if (!joinsPrevious) dots.append(toQt(line[i]));
    }
    painter.setPen(pen);
    painter.drawLines(segments.constData(), static_cast<int>(segments.size()));
    painter.save();
    painter.setPen(Qt::NoPen);
    painter.setBrush(pen.color());
    for (const auto& dot : dots) painter.drawEllipse(dot, pen.widthF(), pen.widthF());
    painter.restore();
}

// The two lines of a plot `graph` in size, with the painter at the plot's top left.
void strokeLines(QPainter& painter, const std::vector<GraphGeometry::Point>& readLine,
                 const std::vector<GraphGeometry::Point>& writeLine, const QColor& read, const QColor& write,
                 QSizeF graph) {
    if (readLine.empty()) return;
    painter.save();
    // The lines may run past the plot's sides when zoomed; a flat line at 0 keeps its full width.
    const QRectF clip(0, -lineWidth, graph.width(), graph.height() + 2 * lineWidth);
    painter.setClipRect(clip);
    strokeRuns(painter, readLine, QPen(read, lineWidth, Qt::SolidLine, Qt::FlatCap, Qt::BevelJoin));
    strokeRuns(painter, writeLine, QPen(write, lineWidth, Qt::SolidLine, Qt::FlatCap, Qt::BevelJoin));
    painter.restore();
}

// A painter on `picture` whose pixels stand `scale` device pixels per canvas unit, shifted by
// `fraction` device pixels, with the canvas's coordinates: a paint of the canvas through a device
// transform with that scale and shift, less the whole pixels, draws the same pixels.
class PicturePainter {
public:
    PicturePainter(QImage& picture, double scale, QPointF fraction) : picture_(picture) {
        picture_.setDevicePixelRatio(scale);
        painter_.begin(&picture_);
        painter_.setRenderHint(QPainter::Antialiasing);
        painter_.setRenderHint(QPainter::TextAntialiasing);
        painter_.translate(fraction / scale);
    }
    ~PicturePainter() {
        painter_.end();
        picture_.setDevicePixelRatio(1);  // copied pixel for pixel
    }
    PicturePainter(const PicturePainter&) = delete;
    PicturePainter& operator=(const PicturePainter&) = delete;

    QPainter& operator*() { return painter_; }

private:
    QImage& picture_;
    QPainter painter_;
};

// Draws `grid` on `picture`, which is filled with `card`, as grid.draw(painter, 0, height) does
// through PicturePainter(picture, scale, fraction) translated to `plot` (the plot's top left).
//
// Hundreds of lines down the plot cost Qt's rasteriser far more than the few rows that differ: a
// row of pixels that every line down crosses whole, a row away from their ends and from the lines
// across, looks like every other such row. One such row is drawn and copied to the others; the
// remaining bands of rows are drawn clipped to themselves, with the lines down cut short a pixel
// beyond the band, which leaves the band's pixels as they are.
void drawGridOn(QImage& picture, const Grid& grid, double scale, QPointF fraction, QPointF plot, const QColor& card) {
    const auto rowOf = [&](double y) { return scale * (plot.y() + y) + fraction.y(); };
    const auto yOf = [&](int row) { return (row - fraction.y()) / scale - plot.y(); };
    const double cap = thinLine / 2;  // how far a line's square caps and sides reach
    const auto floorRow = [&](double y) { return static_cast<int>(std::floor(rowOf(y))); };
    const auto ceilRow = [&](double y) { return static_cast<int>(std::ceil(rowOf(y))); };

    // Runs of rows to copy, first to last: [first, end).
    std::vector<std::pair<int, int>> copied;
    const int first = std::max(ceilRow(-cap) + 1, 0);
    const int end = std::min(floorRow(grid.height + cap) - 1, picture.height());
    if (end > first) copied.emplace_back(first, end);
    for (const double y : grid.tickYs) {
        const int from = floorRow(y - cap) - 1;
        const int to = ceilRow(y + cap) + 1;
        std::vector<std::pair<int, int>> split;
        for (const auto& [a, b] : copied) {
            if (a < std::min(from, b)) split.emplace_back(a, std::min(from, b));
            if (std::max(to, a) < b) split.emplace_back(std::max(to, a), b);
        }
        copied = std::move(split);
    }

    if (!copied.empty()) {
        QImage row(picture.width(), 1, picture.format());
        row.fill(card);
        {
            PicturePainter painter(row, scale, fraction);
            (*painter).translate(plot.x(), 0);
            grid.draw(*painter, -2 / scale - 1, 2 / scale + 1, /*across=*/false);
        }
        const auto bytes = static_cast<std::size_t>(std::min(row.bytesPerLine(), picture.bytesPerLine()));
        for (const auto& [a, b] : copied)
            for (int y = a; y < b; ++y) std::memcpy(picture.scanLine(y), row.constScanLine(0), bytes);
    }

    PicturePainter painter(picture, scale, fraction);
    (*painter).translate(plot);
    const double left = -fraction.x() / scale - plot.x();
    const double right = (picture.width() - fraction.x()) / scale - plot.x();
    const auto drawBand = [&](int from, int to) {
        if (to <= from) return;
        (*painter).save();
        (*painter).setClipRect(QRectF(left, yOf(from), right - left, yOf(to) - yOf(from)));
        grid.draw(*painter, std::max(0.0, yOf(from) - 1), std::min(grid.height, yOf(to) + 1));
        (*painter).restore();
    };
    int from = 0;
    for (const auto& [a, b] : copied) {
        drawBand(from, a);
        from = b;
    }
    drawBand(from, picture.height());
}

}  // namespace

// Pictures that plot jobs drew before, to draw into again once nobody else holds them: a new
// picture's memory costs more to touch the first time than drawing into it. Plot queue only.
struct DiskIOGraphCanvas::PlotBuffers {
    static constexpr std::size_t kept = 3;
    std::vector<QImage> pictures;

    // A picture of its own holding the pixels of `background`.
    QImage copyOf(const QImage& background) {
        for (auto it = pictures.begin(); it != pictures.end(); ++it) {
            // Held here alone, nobody can take it again: it is free to draw into.
            if (!it->isDetached() || it->size() != background.size() || it->format() != background.format()) continue;
            std::atomic_thread_fence(std::memory_order_acquire);  // after the last reader let go
            QImage picture = std::move(*it);
            pictures.erase(it);
            std::memcpy(picture.bits(), background.constBits(), static_cast<std::size_t>(background.sizeInBytes()));
            return picture;
        }
        return background.copy();
    }
    void keep(const QImage& picture) {
        pictures.push_back(picture);
        if (pictures.size() > kept) pictures.erase(pictures.begin());
    }
};

bool DiskIOGraphCanvas::DeviceMapping::drawsLike(const DeviceMapping& other) const {
    return scaleX == other.scaleX && scaleY == other.scaleY && fractionX == other.fractionX &&
           fractionY == other.fractionY;
}

bool DiskIOGraphCanvas::Plot::shows(const BackgroundKey& key, const GraphGeometry::Frame& shown,
                                    const GraphPalette& colours) const {
    return background.shows(key) && readLine == shown.readLine && writeLine == shown.writeLine &&
           read == colours.read.rgba() && write == colours.write.rgba();
}

bool DiskIOGraphCanvas::BackgroundKey::shows(const BackgroundKey& other) const {
    const auto near = [](double a, double b) { return std::abs(a - b) <= 1e-6; };
    return mapping.drawsLike(other.mapping) && format == other.format && pixels == other.pixels &&
           graph == other.graph && font == other.font && card == other.card && text == other.text &&
           secondaryText == other.secondaryText && throughputTicks == other.throughputTicks &&
           timeTicks == other.timeTicks && sampleIntervalMs == other.sampleIntervalMs && measure == other.measure &&
           std::equal(slotLines.begin(), slotLines.end(), other.slotLines.begin(), other.slotLines.end(), near);
}

std::optional<DiskIOGraphCanvas::DeviceMapping> DiskIOGraphCanvas::mappingOf(const QTransform& toDevice) {
    const double scale = toDevice.m11();
    if (toDevice.type() > QTransform::TxScale || !(scale > 0) || toDevice.m22() != scale) return std::nullopt;
    const double x = std::floor(toDevice.dx());
    const double y = std::floor(toDevice.dy());
    constexpr double limit = 1 << 24;
    if (!(std::abs(x) < limit && std::abs(y) < limit)) return std::nullopt;
    return DeviceMapping{scale, scale, toDevice.dx() - x, toDevice.dy() - y,
                         QPoint(static_cast<int>(x), static_cast<int>(y))};
}

DiskIOGraphCanvas::DiskIOGraphCanvas(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent)
    : QWidget(parent),
      cache_(DiskIOGraphRendererCache::create(mainExecutor)),
      mainExecutor_(std::move(mainExecutor)),
      plotBuffers_(std::make_shared<PlotBuffers>()),
      plotQueue_(std::make_unique<SerialQueue>("com.vantorix.graph.plot", QualityOfService::userInitiated)) {
    plotShowTimer_.setSingleShot(true);
    plotShowTimer_.setInterval(kPlotShowDelay);
    connect(&plotShowTimer_, &QTimer::timeout, this, &DiskIOGraphCanvas::showArrivedPlot);
    pointsTimer_.setSingleShot(true);
    connect(&pointsTimer_, &QTimer::timeout, this, [this] {
        lastPointsAt_ = Clock::now();
        if (!requestPoints()) update();
    });
    pointsSubscription_ = cache_->subscribe([this](const DiskIOGraphRendererCache::Points&) { pointsPublished(); });
    // Every paint covers the whole widget in the card colour, so the section need not paint beneath.
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    updateLayout();
}

DiskIOGraphCanvas::~DiskIOGraphCanvas() {
    // Jobs still queued then return at once instead of drawing for nobody.
    ++*plotRequest_;
}

QSize DiskIOGraphCanvas::sizeHint() const { return {640, 260}; }

QSize DiskIOGraphCanvas::minimumSizeHint() const { return {240, 140}; }

void DiskIOGraphCanvas::setSamples(SampleWindow samples, std::int64_t sampleIntervalMs) {
    const std::size_t previousCount = samples_.size();
    const bool intervalChanged = sampleIntervalMs != sampleIntervalMs_;
    const bool wereVisible = pointsVisible_;
    lastSamplesAt_ = Clock::now();
    showArrivedPlot();
    samples_ = std::move(samples);
    sampleIntervalMs_ = sampleIntervalMs;

    bool hoverChanged = false;
    if (samples_.size() != previousCount) {
        auto retargeted = GraphGeometry::retargeted(hoveredSample_, cache_->plottedSamples(),
                                                    static_cast<std::int64_t>(samples_.size()));
        hoverChanged = retargeted != hoveredSample_;
        hoveredSample_ = retargeted;
    }
    // Samples move the lines at most once a kSampleRedrawPeriod: a batch that comes sooner waits
    // for the period's end, when the newest samples are drawn. A new interval is drawn at once.
    const auto now = Clock::now();
    if (!intervalChanged && now - lastPointsAt_ < kSampleRedrawPeriod) {
        if (!pointsTimer_.isActive()) {
            pointsTimer_.start(
                std::chrono::ceil<std::chrono::milliseconds>(kSampleRedrawPeriod - (now - lastPointsAt_)));
        }
        if (hoverChanged) update();
        return;
    }
    pointsTimer_.stop();
    lastPointsAt_ = now;
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
    GraphGeometry::View view = GraphGeometry::viewOf(static_cast<std::int64_t>(samples_.size()), scale_, offset_);
    view.magnifyBy = magnifyBy_;
    view.dragTranslation = dragTranslation_;
    return view;
}

GraphGeometry::Size DiskIOGraphCanvas::graphSize() const { return {graphRect_.width(), graphRect_.height()}; }

GraphGeometry::Frame DiskIOGraphCanvas::frame() const {
    return GraphGeometry::frame(view(), graphSize(), cache_->plottedSamples(), sampleIntervalMs_, measure_);
}

void DiskIOGraphCanvas::setMeasure(GraphMeasure measure) {
    if (measure == measure_) return;
    measure_ = measure;
    // The points stay; the lines, the axis and the tooltip change. The paint at once draws them
    // itself, and later ones copy the plot drawn ahead for the new lines.
    drawPlotAhead();
    update();
}

void DiskIOGraphCanvas::setQueue(std::optional<BlockQueue> queue) {
    if (queue == queue_) return;
    queue_ = queue;
    if (hoveredSample_) update();  // the tooltip names the busy share and shows the queue's size
}

std::optional<GraphGeometry::TooltipLines> DiskIOGraphCanvas::tooltipLines() const {
    if (!hoveredSample_) return std::nullopt;
    return GraphGeometry::tooltipLines(*hoveredSample_, samples_, sampleIntervalMs_, measure_, queue_);
}

std::optional<QRectF> DiskIOGraphCanvas::tooltipRect() const {
    const auto lines = tooltipLines();
    if (!lines) return std::nullopt;
    const GraphGeometry::Frame shown = frame();
    const QSizeF size = TooltipBubble::measure(*lines, tooltipFont_);
    const auto marker = GraphGeometry::marker(*hoveredSample_, shown, graphSize());
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
    // The tooltip shows the hovered sample's figures, which a new batch may change.
    if (hoveredSample_) update();
    drawPlotAhead();
}

void DiskIOGraphCanvas::drawPlotAhead() {
    const GraphGeometry::Frame shown = frame();
    // Before the first paint there is no device to draw for; without lines the paint is cheap.
    if (!lastTarget_ || shown.readLine.empty()) {
        update();
        return;
    }
    const GraphPalette colours = GraphPalette::of(palette(), measure_);
    const auto& [mapping, format] = *lastTarget_;
    const BackgroundKey key = backgroundKey(mapping, format, shown, colours);
    // A batch that leaves the picture as it is (an idle volume's flat lines under a full history)
    // costs neither a drawing nor a repaint.
    if (plotAhead_ && plotAhead_->shows(key, shown, colours)) return;
    if (plot_ && plot_->shows(key, shown, colours)) {
        if (plotAhead_) {  // the pending picture would show something else: it is not wanted
            ++*plotRequest_;
            plotAhead_.reset();
            plotPending_ = false;
            update();
        }
        return;
    }
    QImage picture = background(key, shown, colours);
    // What the picture will show stays here; the job gets plain values and pictures only.
    plotAhead_ = Plot{key, shown.readLine, shown.writeLine, colours.read.rgba(), colours.write.rgba(), QImage()};
    const std::uint64_t request = ++*plotRequest_;
    plotPending_ = true;
    plotQueue_->async([picture = std::move(picture), readLine = shown.readLine, writeLine = shown.writeLine,
                       read = colours.read.rgba(), write = colours.write.rgba(), scale = mapping.scaleX,
                       fraction = QPointF(mapping.fractionX, mapping.fractionY), graph = graphRect_, request,
                       current = plotRequest_, buffers = plotBuffers_, main = mainExecutor_,
                       alive = std::weak_ptr<bool>(alive_), self = this]() mutable {
        if (current->load() != request) return;  // superseded before it started
        picture = buffers->copyOf(picture);
        {
            PicturePainter painter(picture, scale, fraction);
            (*painter).translate(graph.topLeft());
            strokeLines(*painter, readLine, writeLine, QColor::fromRgba(read), QColor::fromRgba(write), graph.size());
        }
        buffers->keep(picture);
        main->post([self, alive = std::move(alive), current = std::move(current), request,
                    picture = std::move(picture)]() mutable {
            // Gone, or superseded: dropped.
            if (alive.expired() || current->load() != request || !self->plotAhead_) return;
            // Only the lines changed when the background is the one already shown: then what changed
            // lies where the old lines were and where the new ones are.
            std::optional<QRect> changed;
            if (self->plot_ && self->plot_->background.shows(self->plotAhead_->background)) {
                changed = self->linesRect(*self->plot_).united(self->linesRect(*self->plotAhead_));
            }
            self->plot_ = std::move(self->plotAhead_);
            self->plotAhead_.reset();
            self->plot_->image = std::move(picture);
            self->plotPending_ = false;
            self->plotArrived(changed);
        });
    });
}

void DiskIOGraphCanvas::plotArrived(const std::optional<QRect>& changed) {
    unshownPlotRegion_ = unshownPlotRegion_.united(changed && !hoveredSample_ ? *changed : rect());
    // While batches keep coming, the picture waits for the next one, so that the window shows the
    // batch's texts and the graph in one repaint a frame instead of two. When none comes within a
    // frame or so, the timer shows it.
    if (Clock::now() - lastSamplesAt_ < kBatchFlowGap) {
        if (!plotShowTimer_.isActive()) plotShowTimer_.start();
        return;
    }
    showArrivedPlot();
}

void DiskIOGraphCanvas::showArrivedPlot() {
    plotShowTimer_.stop();
    if (unshownPlotRegion_.isEmpty()) return;
    update(unshownPlotRegion_);
    unshownPlotRegion_ = QRegion();
}

QRect DiskIOGraphCanvas::linesRect(const Plot& plot) const {
    // The band of the plot between the lines' lowest and highest points, with a margin for the line
    // width (the radius of a lone point's dot) and a pixel more for antialiasing. A gap draws nothing.
    double top = std::numeric_limits<double>::infinity();
    double bottom = -top;
    for (const auto* line : {&plot.readLine, &plot.writeLine}) {
        for (const auto& point : *line) {
            if (!std::isfinite(point.y)) continue;
            top = std::min(top, point.y);
            bottom = std::max(bottom, point.y);
        }
    }
    if (!(top <= bottom)) return {};
    const double margin = lineWidth + 1;
    const QRectF graph = plot.background.graph;
    return QRectF(graph.left() - margin, graph.top() + top - margin, graph.width() + 2 * margin,
                  bottom - top + 2 * margin)
        .toAlignedRect()
        .intersected(rect());
}

void DiskIOGraphCanvas::viewChanged() {
    requestPoints();
    // A zoom under a resting pointer moves the points; the hover goes to the one now under it.
    if (pointer_) hover(*pointer_);
    update();
}

void DiskIOGraphCanvas::setHoveredSample(std::optional<IndexedSample> sample) {
    if (sample == hoveredSample_) return;
    hoveredSample_ = sample;
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
        default: return QWidget::event(event);
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
    const GraphGeometry::View committed = GraphGeometry::viewOf(static_cast<std::int64_t>(samples_.size()), scale_,
                                                                offset_);
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
    const GraphPalette colours = GraphPalette::of(palette(), measure_);
    const GraphGeometry::Frame shown = frame();
    const auto mapping = mappingOf(painter.deviceTransform());
    const QPaintEngine* engine = painter.paintEngine();
    const auto* target = engine != nullptr && engine->paintDevice() != nullptr &&
                                 engine->paintDevice()->devType() == QInternal::Image
                             ? static_cast<const QImage*>(engine->paintDevice())
                             : nullptr;
    if (mapping && target != nullptr) {
        // The plot as a picture: drawn ahead for these lines, or the background with the lines on it.
        const BackgroundKey key = backgroundKey(*mapping, target->format(), shown, colours);
        const bool plotted = plot_ && plot_->shows(key, shown, colours);
        const QImage& picture = plotted ? plot_->image : background(key, shown, colours);
        painter.save();
        painter.setWorldTransform(painter.deviceTransform().inverted());  // device pixels
        // The picture is opaque (filled with the card's colour), so it replaces what lies beneath
        // by a plain copy instead of a blend of every pixel.
        if (colours.cardBackground.alpha() == 255) painter.setCompositionMode(QPainter::CompositionMode_Source);
        painter.drawImage(mapping->origin, picture);
        painter.restore();
        lastTarget_.emplace(*mapping, target->format());
        painter.translate(graphRect_.topLeft());
        if (!plotted)
            strokeLines(painter, shown.readLine, shown.writeLine, colours.read, colours.write, graphRect_.size());
    } else {
        painter.fillRect(rect(), colours.cardBackground);
        painter.translate(graphRect_.topLeft());
        Grid(slotLines(shown.slots, graphRect_.width()), shown.throughputTicks, shown.timeTicks, graphRect_.size(),
             colours.text)
            .draw(painter, 0, graphRect_.height());
        paintThroughputLabels(painter, shown, colours);
        strokeLines(painter, shown.readLine, shown.writeLine, colours.read, colours.write, graphRect_.size());
        paintTimeLabels(painter, shown, colours);
    }
    paintHover(painter, shown, colours);
}

DiskIOGraphCanvas::BackgroundKey DiskIOGraphCanvas::backgroundKey(const DeviceMapping& mapping, QImage::Format format,
                                                                  const GraphGeometry::Frame& shown,
                                                                  const GraphPalette& colours) const {
    BackgroundKey key;
    key.mapping = mapping;
    key.format = format;
    key.pixels = QSize(static_cast<int>(std::ceil(width() * mapping.scaleX + mapping.fractionX)),
                       static_cast<int>(std::ceil(height() * mapping.scaleY + mapping.fractionY)));
    key.graph = graphRect_;
    key.font = axisFont_;
    key.card = colours.cardBackground.rgba();
    key.text = colours.text.rgba();
    key.secondaryText = colours.secondaryText.rgba();
    key.slotLines = slotLines(shown.slots, graphRect_.width());
    key.throughputTicks = shown.throughputTicks;
    key.timeTicks = shown.timeTicks;
    key.sampleIntervalMs = sampleIntervalMs_;
    key.measure = shown.measure;
    return key;
}

const QImage& DiskIOGraphCanvas::background(const BackgroundKey& key, const GraphGeometry::Frame& shown,
                                            const GraphPalette& colours) {
    if (background_ && background_->key.shows(key)) return background_->image;
    // Everything but the lines, in their order; the time labels lie below the lines' reach. The
    // previous picture's memory is drawn into again when no plot job holds it any more.
    QImage image;
    if (background_ && background_->image.isDetached() && background_->image.size() == key.pixels &&
        background_->image.format() == key.format) {
        std::atomic_thread_fence(std::memory_order_acquire);  // after the last job let go of it
        image = std::move(background_->image);
    } else {
        image = QImage(key.pixels, key.format);
    }
    background_.reset();
    image.fill(colours.cardBackground);
    const QPointF fraction(key.mapping.fractionX, key.mapping.fractionY);
    drawGridOn(image, Grid(key.slotLines, key.throughputTicks, key.timeTicks, graphRect_.size(), colours.text),
               key.mapping.scaleX, fraction, graphRect_.topLeft(), colours.cardBackground);
    {
        PicturePainter painter(image, key.mapping.scaleX, fraction);
        (*painter).translate(graphRect_.topLeft());
        paintThroughputLabels(*painter, shown, colours);
        paintTimeLabels(*painter, shown, colours);
    }
    background_ = Background{key, std::move(image)};
    return background_->image;
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
    for (const auto& label : GraphGeometry::valueLabels(shown.measure, shown.throughputTicks)) {
        const double y = height - label.tick.position * height;
        const double baseline = y + (metrics.ascent() - metrics.descent()) / 2;
        painter.drawText(QPointF(width + labelGap, baseline), qString(label.text));
    }
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
    const auto marker = GraphGeometry::marker(*hoveredSample_, shown, graphSize());

    // A marker moved off the plot by a zoom stays off the axis labels.
    painter.save();
    const double reach = dotDiameter / 2 + 1;
    painter.setClipRect(QRectF(-reach, -reach, graphRect_.width() + 2 * reach, graphRect_.height() + 2 * reach));
    QPen dashed(withOpacity(colours.text, markerOpacity), 1, Qt::CustomDashLine);
    dashed.setDashPattern({4, 4});
    painter.setPen(dashed);
    painter.drawLine(QLineF(marker.x, 0, marker.x, graphRect_.height()));

    painter.setPen(QPen(withOpacity(colours.text, dotOutlineOpacity), 1));
    const auto dot = [&](const std::optional<double>& y, const QColor& colour) {
        if (!y) return;  // no figure at this point
        painter.setBrush(colour);
        painter.drawEllipse(QPointF(marker.x, *y), dotDiameter / 2, dotDiameter / 2);
    };
    dot(marker.readY, colours.read);
    dot(marker.writeY, colours.write);
    painter.restore();

    const auto lines = GraphGeometry::tooltipLines(*hoveredSample_, samples_, sampleIntervalMs_, measure_, queue_);
    tooltipContentSize_ = TooltipBubble::measure(lines, tooltipFont_);
    const auto origin = GraphGeometry::tooltipOrigin(
        marker, {tooltipContentSize_.width(), tooltipContentSize_.height()}, graphSize());
    TooltipBubble::paint(painter, toQt(origin), lines, tooltipFont_, colours);
}

}  // namespace vantorix::ui
