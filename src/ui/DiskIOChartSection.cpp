#include "ui/DiskIOChartSection.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include <algorithm>
#include <array>

#include "charts/SampleWindow.h"
#include "ui/DiskIOGraphCanvas.h"
#include "ui/GraphPalette.h"
#include "ui/QtText.h"
#include "ui/SegmentedControl.h"

namespace vantorix::ui {
namespace {

constexpr int horizontalPadding = 18;
constexpr int verticalPadding = 16;
constexpr double cornerRadius = 20;

// The switch's segments, in order.
constexpr std::array<GraphMeasure, 3> kMeasures = {GraphMeasure::throughput, GraphMeasure::latency, GraphMeasure::load};

}  // namespace

DiskIOChartSection::DiskIOChartSection(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent)
    : QFrame(parent),
      switch_(new SegmentedControl(this)),
      legend_(new QLabel(this)),
      canvas_(new DiskIOGraphCanvas(std::move(mainExecutor), this)) {
    setFrameShape(QFrame::NoFrame);
    switch_->setObjectName(QStringLiteral("graphMeasureSwitch"));
    QStringList names;
    for (const GraphMeasure measure : kMeasures) names << qText(GraphGeometry::measureName(measure));
    switch_->setLabels(names);
    legend_->setObjectName(QStringLiteral("graphLegend"));
    legend_->setTextFormat(Qt::RichText);
    QFont legendFont = legend_->font();
    legendFont.setPixelSize(12);
    legend_->setFont(legendFont);
    auto* header = new QHBoxLayout();
    header->setSpacing(12);
    header->addWidget(switch_);
    header->addStretch(1);
    header->addWidget(legend_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(horizontalPadding, verticalPadding, horizontalPadding, verticalPadding);
    layout->setSpacing(10);
    layout->addLayout(header);
    layout->addWidget(canvas_, 1);
    connect(switch_, &SegmentedControl::currentIndexChanged, this, [this](int index) {
        canvas_->setMeasure(kMeasures.at(static_cast<std::size_t>(index)));
        updateLegend();
    });
    connect(canvas_, &DiskIOGraphCanvas::scaleChanged, this, &DiskIOChartSection::scaleChanged);
    connect(canvas_, &DiskIOGraphCanvas::offsetChanged, this, &DiskIOChartSection::offsetChanged);
    connect(canvas_, &DiskIOGraphCanvas::chartSizeChanged, this, &DiskIOChartSection::chartSizeChanged);
    updateLegend();
}

void DiskIOChartSection::setSamples(const DiskIOMonitor::SampleHistory& samples, std::int64_t samplingIntervalMs) {
    canvas_->setSamples(SampleWindow::newest(samples, static_cast<std::size_t>(GraphGeometry::totalSlotCount)),
                        samplingIntervalMs);
}

void DiskIOChartSection::setQueue(const std::optional<BlockQueue>& queue) {
    if (queue == queue_) return;
    queue_ = queue;
    canvas_->setQueue(queue);
    updateLegend();
}

double DiskIOChartSection::scale() const { return canvas_->scale(); }

double DiskIOChartSection::offset() const { return canvas_->offset(); }

void DiskIOChartSection::setScale(double scale) { canvas_->setScale(scale); }

void DiskIOChartSection::setOffset(double offset) { canvas_->setOffset(offset); }

GraphMeasure DiskIOChartSection::measure() const { return canvas_->measure(); }

void DiskIOChartSection::setMeasure(GraphMeasure measure) {
    const auto at = std::find(kMeasures.begin(), kMeasures.end(), measure);
    switch_->setCurrentIndex(static_cast<int>(at - kMeasures.begin()));
}

QString DiskIOChartSection::legendText() const {
    const auto names = GraphGeometry::lineNames(canvas_->measure(), queue_);
    return qText(names[0]) + QLatin1Char('\n') + qText(names[1]);
}

void DiskIOChartSection::updateLegend() {
    // A dot in each line's colour before its name, the names in the axis labels' colour.
    const GraphPalette colours = GraphPalette::of(palette(), canvas_->measure());
    const auto names = GraphGeometry::lineNames(canvas_->measure(), queue_);
    const auto item = [](const QColor& colour, const std::string& name) {
        return QStringLiteral("<span style=\"color:%1\">●</span>&nbsp;%2")
            .arg(colour.name(), qText(name).toHtmlEscaped());
    };
    QPalette ink = legend_->palette();
    ink.setColor(QPalette::WindowText, colours.secondaryText);
    legend_->setPalette(ink);
    legend_->setText(item(colours.read, names[0]) + QStringLiteral("&nbsp;&nbsp;&nbsp;&nbsp;") +
                     item(colours.write, names[1]));
}

void DiskIOChartSection::changeEvent(QEvent* event) {
    QFrame::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::ApplicationPaletteChange) updateLegend();
}

void DiskIOChartSection::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath card;
    card.addRoundedRect(QRectF(rect()), cornerRadius, cornerRadius);
    painter.fillPath(card, GraphPalette::of(palette()).cardBackground);
}

}  // namespace vantorix::ui
