#pragma once

#include <QFileDialog>
#include <QMessageBox>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <memory>
#include <optional>

#include "benchmark/DiskPerformanceTester.h"
#include "concurrency/MainExecutor.h"
#include "concurrency/NotificationCenter.h"
#include "dashboard/SmartSheetContent.h"
#include "health/HealthRecorder.h"
#include "monitor/DiskIOMonitor.h"
#include "monitor/SmartRefresh.h"
#include "platform/HelperService.h"
#include "ui/SmartInfoSheet.h"

namespace vantorix::ui {

class DiskIOChartSection;
class ErrorBubbleStack;
class MetricsDashboardSection;
class VolumeControlPanel;

// The main window's content: the volume panel, the message bubbles, the metric cards and the
// graph, bound to the shared monitor and tester. What it shows is recomputed from
// their published state whenever either changes; dialogs and alerts open without blocking (no
// nested event loop) and answer through signals.
class DashboardRootView final : public QWidget {
    Q_OBJECT
public:
    struct Dependencies {
        std::shared_ptr<DiskIOMonitor> monitor;
        std::shared_ptr<DiskPerformanceTester> tester;
        std::shared_ptr<MainExecutor> mainExecutor;
        // Paused while a performance test runs, so that the test measures the disk and not the polling.
        std::shared_ptr<SmartRefresh> smartRefresh;
        // Says how the SMART helper is enabled on this system, for the approval alert.
        std::shared_ptr<HelperService> helperService;
        // The drives' SMART history, shown in the SMART sheet; none: the sheet shows no history.
        // The dashboard takes its recorded observer, to refresh an open sheet's history.
        std::shared_ptr<health::HealthRecorder> healthRecorder;
        NotificationCenter* notifications = &NotificationCenter::defaultCenter();
    };

    explicit DashboardRootView(Dependencies dependencies, QWidget* parent = nullptr);
    ~DashboardRootView() override;

    VolumeControlPanel* panel() const { return panel_; }
    MetricsDashboardSection* metrics() const { return metrics_; }
    ErrorBubbleStack* bubbles() const { return bubbles_; }
    DiskIOChartSection* chart() const { return chart_; }
    // The alert or sheet on show, if any.
    QMessageBox* exportAlert() const { return exportAlert_; }
    QMessageBox* helperApprovalAlert() const { return approvalAlert_; }
    SmartInfoSheet* smartSheet() const { return smartSheet_; }
    QFileDialog* openDialog() const { return openDialog_; }

    // The actions of the panel's buttons.
    void chooseVolume();
    void toggleMonitoring();
    void exportChart();
    void showSmartInfo();
    void runPerformanceTest();
    void stopPerformanceTest();

    // Where the folder chooser starts.
    static QString folderChooserStart();

Q_SIGNALS:
    // The last export's outcome, as the alert shows it.
    void exportFinished(const QString& outcome);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void refresh();
    void exportTo(const QString& csvPath);
    void showHelperApprovalAlert();

    Dependencies dependencies_;
    VolumeControlPanel* panel_;
    ErrorBubbleStack* bubbles_;
    MetricsDashboardSection* metrics_;
    DiskIOChartSection* chart_;
    QPointer<QMessageBox> exportAlert_;
    QPointer<QMessageBox> approvalAlert_;
    QPointer<SmartInfoSheet> smartSheet_;
    QPointer<QFileDialog> openDialog_;
    Subscription monitorSubscription_;
    Subscription testerSubscription_;
    Subscription approvalSubscription_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    // What the volume panel was last made from, apart from the tester, whose every change remakes it.
    struct PanelInputs {
        std::optional<DiskVolumeDescriptor> volume;
        bool monitoring = false;
        bool exportEnabled = false;
    };
    std::optional<PanelInputs> panelInputs_;
    bool testerChanged_ = true;
    double chartScale_ = 1;
    double chartOffset_ = 0;
    QSize chartSize_;
};

}  // namespace vantorix::ui
