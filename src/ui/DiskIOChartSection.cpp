#include "ui/DiskIOChartSection.h"

#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>

#include "charts/GraphGeometry.h"
#include "charts/SampleWindow.h"
#include "ui/DiskIOGraphCanvas.h"
#include "ui/GraphPalette.h"

namespace vantorix::ui {
namespace {

constexpr int horizontalPadding = 18;
constexpr int verticalPadding = 16;
constexpr double cornerRadius = 20;

}  // namespace

DiskIOChartSection::DiskIOChartSection(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent)
    : QFrame(parent), canvas_(new DiskIOGraphCanvas(std::move(mainExecutor), this)) {
    setFrameShape(QFrame::NoFrame);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(horizontalPadding, verticalPadding, horizontalPadding, verticalPadding);
    layout->addWidget(canvas_);
    connect(canvas_, &DiskIOGraphCanvas::scaleChanged, this, &DiskIOChartSection::scaleChanged);
    connect(canvas_, &DiskIOGraphCanvas::offsetChanged, this, &DiskIOChartSection::offsetChanged);
    connect(canvas_, &DiskIOGraphCanvas::chartSizeChanged, this, &DiskIOChartSection::chartSizeChanged);
}

void DiskIOChartSection::setSamples(const DiskIOMonitor::SampleHistory& samples, std::int64_t samplingIntervalMs) {
    canvas_->setSamples(SampleWindow::newest(samples, static_cast<std::size_t>(GraphGeometry::totalSlotCount)),
                        samplingIntervalMs);
}

double DiskIOChartSection::scale() const { return canvas_->scale(); }

double DiskIOChartSection::offset() const { return canvas_->offset(); }

void DiskIOChartSection::setScale(double scale) { canvas_->setScale(scale); }

void DiskIOChartSection::setOffset(double offset) { canvas_->setOffset(offset); }

void DiskIOChartSection::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath card;
    card.addRoundedRect(QRectF(rect()), cornerRadius, cornerRadius);
    painter.fillPath(card, GraphPalette::of(palette()).cardBackground);
}

}  // namespace vantorix::ui
