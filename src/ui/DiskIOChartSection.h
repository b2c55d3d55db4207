#pragma once

#include <QFrame>
#include <QSize>

#include <cstdint>
#include <memory>
#include <optional>

#include "charts/GraphGeometry.h"
#include "concurrency/MainExecutor.h"
#include "monitor/DiskIOMonitor.h"

class QLabel;

namespace vantorix::ui {

class DiskIOGraphCanvas;
class SegmentedControl;

// The dashboard's card around the graph: rounded corners, the card colour of the desktop's scheme,
// a switch between the graph's measures (throughput, latency, load) with the legend of the shown
// lines beside it, and the graph below. The dashboard hands it each delivered batch of samples
// and owns the graph's zoom and shift, which it keeps in step through the setters and signals.
class DiskIOChartSection : public QFrame {
    Q_OBJECT

public:
    explicit DiskIOChartSection(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent = nullptr);

    // Shows the newest samples of `samples`; never walks the whole history.
    void setSamples(const DiskIOMonitor::SampleHistory& samples, std::int64_t samplingIntervalMs);
    // How the selected volume's device takes requests (nothing without a selection or a queue).
    void setQueue(const std::optional<BlockQueue>& queue);

    double scale() const;
    double offset() const;
    // Emit scaleChanged / offsetChanged when the value changes, nothing otherwise.
    void setScale(double scale);
    void setOffset(double offset);

    // What the graph shows; the switch follows.
    GraphMeasure measure() const;
    void setMeasure(GraphMeasure measure);

    DiskIOGraphCanvas* canvas() const { return canvas_; }
    SegmentedControl* measureSwitch() const { return switch_; }
    // The legend as shown: the two lines' names.
    QString legendText() const;

Q_SIGNALS:
    void scaleChanged(double scale);
    void offsetChanged(double offset);
    void chartSizeChanged(QSize size);

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void updateLegend();

    SegmentedControl* switch_;
    QLabel* legend_;
    DiskIOGraphCanvas* canvas_;
    std::optional<BlockQueue> queue_;
};

}  // namespace vantorix::ui
