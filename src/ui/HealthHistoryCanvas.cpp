#include "ui/HealthHistoryCanvas.h"

#include <QFontMetricsF>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>

#include <algorithm>
#include <cmath>
#include <utility>

#include "ui/Appearance.h"
#include "ui/GraphPalette.h"
#include "ui/QtText.h"
#include "ui/TooltipBubble.h"

namespace vantorix::ui {
namespace {

constexpr double kPadLeft = 14;
constexpr double kPadTop = 10;
constexpr double kPadRight = 8;
constexpr double kPadBottom = 4;
constexpr double kCornerRadius = 10;
constexpr double kLabelGap = 6;
constexpr double kGridOpacity = 0.09;
constexpr double kMarkerOpacity = 0.35;
constexpr double kLineWidth = 1.6;
constexpr double kDotDiameter = 7;

// Temperature in the graph's write orange, wear in its load blue, a count in its read green, or
// red once it grew above its baseline.
QColor panelColour(const HealthChart::Panel& panel, const GraphPalette& colours) {
    if (panel.figure == health::Figure::temperature) return colours.write;
    if (panel.figure == health::Figure::percentageUsed)
        return colours.dark ? QColor(0x40, 0x9c, 0xff) : QColor(0x00, 0x6b, 0xd6);
    if (panel.grew) return colours.dark ? QColor(0xff, 0x45, 0x3a) : QColor(0xd7, 0x00, 0x15);
    return colours.read;
}

}  // namespace

HealthHistoryCanvas::HealthHistoryCanvas(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    axisFont_ = font();
    axisFont_.setPointSizeF(9);
    titleFont_ = font();
    titleFont_.setPointSizeF(9.75);
    titleFont_.setWeight(QFont::DemiBold);
    tooltipFont_ = TooltipBubble::font(font());
}

void HealthHistoryCanvas::setHistory(std::vector<health::HealthSnapshot> readings, std::vector<health::Growth> growth,
                                     std::int64_t now) {
    readings_ = std::move(readings);
    growth_ = std::move(growth);
    now_ = now;
    layOut();
    updateGeometry();
    update();
}

QPointF HealthHistoryCanvas::chartOrigin() const { return {kPadLeft, kPadTop}; }

void HealthHistoryCanvas::layOut() {
    chart_ = HealthChart::make(readings_, growth_, now_,
                               {width() - kPadLeft - kPadRight, height() - kPadTop - kPadBottom});
    hovered_ = pointer_ ? chart_.hovered({pointer_->x(), pointer_->y()}) : std::nullopt;
}

std::optional<GraphGeometry::TooltipLines> HealthHistoryCanvas::tooltipLines() const {
    if (!hovered_) return std::nullopt;
    return chart_.tooltipLines(readings_, *hovered_);
}

QSize HealthHistoryCanvas::sizeHint() const {
    const double panels = static_cast<double>(HealthChart::figuresOf(readings_).size());
    return {560, static_cast<int>(std::ceil(HealthChart::minimumHeight(static_cast<std::size_t>(panels)) + panels * 24 +
                                            kPadTop + kPadBottom))};
}

QSize HealthHistoryCanvas::minimumSizeHint() const {
    const auto panels = HealthChart::figuresOf(readings_).size();
    return {320, static_cast<int>(std::ceil(HealthChart::minimumHeight(panels) + kPadTop + kPadBottom))};
}

void HealthHistoryCanvas::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    layOut();
}

void HealthHistoryCanvas::mouseMoveEvent(QMouseEvent* event) {
    pointer_ = event->position() - chartOrigin();
    const auto hovered = chart_.hovered({pointer_->x(), pointer_->y()});
    if (hovered != hovered_) {
        hovered_ = hovered;
        update();
    }
    QWidget::mouseMoveEvent(event);
}

void HealthHistoryCanvas::leaveEvent(QEvent* event) {
    pointer_.reset();
    if (hovered_) {
        hovered_.reset();
        update();
    }
    QWidget::leaveEvent(event);
}

void HealthHistoryCanvas::paintEvent(QPaintEvent* /*event*/) {
    const GraphPalette colours = GraphPalette::of(palette());
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath card;
    card.addRoundedRect(QRectF(rect()), kCornerRadius, kCornerRadius);
    painter.fillPath(card, colours.cardBackground);
    if (chart_.panels.empty()) return;
    painter.translate(chartOrigin());

    // The time grid through every band, its labels below the last one.
    const double gridTop = chart_.panels.front().top;
    const double gridBottom = chart_.panels.back().bottom;
    painter.setPen(QPen(withOpacity(colours.text, kGridOpacity), 1));
    for (const auto& tick : chart_.timeTicks) painter.drawLine(QLineF(tick.at, gridTop, tick.at, gridBottom));
    painter.setFont(axisFont_);
    painter.setPen(colours.secondaryText);
    const QFontMetricsF metrics(axisFont_);
    for (const auto& tick : chart_.timeTicks) {
        const QString label = qText(tick.label);
        painter.drawText(QPointF(tick.at - metrics.horizontalAdvance(label) / 2, gridBottom + 4 + metrics.ascent()),
                         label);
    }
    for (const auto& panel : chart_.panels) paintPanel(painter, panel, colours);
    paintHover(painter, colours);
}

void HealthHistoryCanvas::paintPanel(QPainter& painter, const HealthChart::Panel& panel,
                                     const GraphPalette& colours) const {
    const QColor line = panelColour(panel, colours);
    // The title, then the last value in the figure's colour.
    const QFontMetricsF titleMetrics(titleFont_);
    const double titleBaseline = panel.titleTop + titleMetrics.ascent() + 1;
    const QString title = qText(panel.title);
    painter.setFont(titleFont_);
    painter.setPen(colours.text);
    painter.drawText(QPointF(chart_.plotLeft, titleBaseline), title);
    painter.setPen(line);
    painter.drawText(QPointF(chart_.plotLeft + titleMetrics.horizontalAdvance(title) + 8, titleBaseline),
                     qText(panel.latest));

    // Value grid and labels right of the plot; the baseline of a count dashed.
    const QFontMetricsF metrics(axisFont_);
    painter.setFont(axisFont_);
    for (const auto& tick : panel.valueTicks) {
        painter.setPen(QPen(withOpacity(colours.text, kGridOpacity), 1));
        painter.drawLine(QLineF(chart_.plotLeft, tick.at, chart_.plotRight, tick.at));
        painter.setPen(colours.secondaryText);
        painter.drawText(QPointF(chart_.plotRight + kLabelGap, tick.at + (metrics.ascent() - metrics.descent()) / 2),
                         qText(tick.label));
    }
    if (panel.baselineY) {
        QPen dashed(withOpacity(colours.text, kMarkerOpacity), 1, Qt::DashLine);
        painter.setPen(dashed);
        painter.drawLine(QLineF(chart_.plotLeft, *panel.baselineY, chart_.plotRight, *panel.baselineY));
    }

    painter.setPen(QPen(line, kLineWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(Qt::NoBrush);
    for (const auto& piece : panel.pieces) {
        if (piece.size() == 1) {
            painter.save();
            painter.setPen(Qt::NoPen);
            painter.setBrush(line);
            painter.drawEllipse(QPointF(piece.front().x, piece.front().y), kLineWidth * 1.5, kLineWidth * 1.5);
            painter.restore();
            continue;
        }
        QPolygonF polyline;
        polyline.reserve(static_cast<qsizetype>(piece.size()));
        for (const auto& point : piece) polyline.append(QPointF(point.x, point.y));
        painter.drawPolyline(polyline);
    }
}

void HealthHistoryCanvas::paintHover(QPainter& painter, const GraphPalette& colours) const {
    if (!hovered_) return;
    const auto marker = chart_.marker(readings_, *hovered_);
    QPen dashed(withOpacity(colours.text, kMarkerOpacity), 1, Qt::CustomDashLine);
    dashed.setDashPattern({4, 3});
    painter.setPen(dashed);
    painter.drawLine(QLineF(marker.x, chart_.panels.front().top, marker.x, chart_.panels.back().bottom));
    for (std::size_t i = 0; i < marker.dots.size(); ++i) {
        if (!marker.dots[i]) continue;
        painter.setPen(QPen(colours.cardBackground, 1.5));
        painter.setBrush(panelColour(chart_.panels[i], colours));
        painter.drawEllipse(QPointF(marker.x, *marker.dots[i]), kDotDiameter / 2, kDotDiameter / 2);
    }
    const auto lines = chart_.tooltipLines(readings_, *hovered_);
    const QSizeF size = TooltipBubble::measure(lines, tooltipFont_);
    const auto origin = chart_.tooltipOrigin(marker, {size.width(), size.height()});
    TooltipBubble::paint(painter, QPointF(origin.x, origin.y), lines, tooltipFont_, colours);
}

}  // namespace vantorix::ui
