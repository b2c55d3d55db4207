#pragma once

#include <QFrame>
#include <QSize>

#include <cstdint>
#include <memory>

#include "concurrency/MainExecutor.h"
#include "monitor/DiskIOMonitor.h"

namespace vantorix::ui {

class DiskIOGraphCanvas;

// The dashboard's card around the throughput graph: rounded corners, the card colour of the
// desktop's scheme, and the graph inside. The dashboard hands it each delivered batch of samples
// and owns the graph's zoom and shift, which it keeps in step through the setters and signals.
class DiskIOChartSection : public QFrame {
    Q_OBJECT

public:
    explicit DiskIOChartSection(std::shared_ptr<MainExecutor> mainExecutor, QWidget* parent = nullptr);

    // Shows the newest samples of `samples`; never walks the whole history.
    void setSamples(const DiskIOMonitor::SampleHistory& samples, std::int64_t samplingIntervalMs);

    double scale() const;
    double offset() const;
    // Emit scaleChanged / offsetChanged when the value changes, nothing otherwise.
    void setScale(double scale);
    void setOffset(double offset);

    DiskIOGraphCanvas* canvas() const { return canvas_; }

Q_SIGNALS:
    void scaleChanged(double scale);
    void offsetChanged(double offset);
    void chartSizeChanged(QSize size);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    DiskIOGraphCanvas* canvas_;
};

}  // namespace vantorix::ui
