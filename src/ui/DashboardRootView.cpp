#include "ui/DashboardRootView.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QScrollArea>
#include <QVBoxLayout>

#include "charts/ChartExportSupport.h"
#include "charts/LatencyExport.h"
#include "charts/SampleWindow.h"
#include "dashboard/MessageBubbles.h"
#include "dashboard/MetricCards.h"
#include "dashboard/ShellTexts.h"
#include "dashboard/VolumePanelContent.h"
#include "render/ChartImageRenderer.h"
#include "smart/HelperApprovalTexts.h"
#include "smart/PrivilegedHelperManager.h"
#include "text/Language.h"
#include "ui/Appearance.h"
#include "ui/DiskIOChartSection.h"
#include "ui/ErrorBubbleStack.h"
#include "ui/MetricCardView.h"
#include "ui/QtText.h"
#include "ui/SmartInfoSheet.h"
#include "ui/VolumeControlPanel.h"

namespace vantorix::ui {
namespace {

// Wide enough for a command or a file path on one line.
const QString kWideAlertText = QStringLiteral("QLabel#qt_msgbox_label { min-width: 480px; }");

std::optional<std::string> environment(const char* name) {
    const QByteArray value = qgetenv(name);
    if (value.isEmpty()) return std::nullopt;
    return value.toStdString();
}

}  // namespace

DashboardRootView::DashboardRootView(Dependencies dependencies, QWidget* parent)
    : QWidget(parent),
      dependencies_(std::move(dependencies)),
      panel_(new VolumeControlPanel(this)),
      bubbles_(new ErrorBubbleStack(this)),
      metrics_(new MetricsDashboardSection(this)),
      chart_(new DiskIOChartSection(dependencies_.mainExecutor, this)) {
    setObjectName(QStringLiteral("dashboardRootView"));
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(16);
    // The panel scrolls when the window is too short for it, rather than squeezing its text.
    auto* panelScroll = new QScrollArea(this);
    panelScroll->setWidget(panel_);
    panelScroll->setWidgetResizable(true);
    panelScroll->setFrameShape(QFrame::NoFrame);
    panelScroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    panelScroll->setFixedWidth(392);
    panelScroll->viewport()->setAutoFillBackground(false);
    layout->addWidget(panelScroll);
    auto* right = new QVBoxLayout();
    right->setSpacing(12);
    right->addWidget(bubbles_);
    right->addWidget(metrics_);
    right->addWidget(chart_, 1);
    layout->addLayout(right, 1);
    chart_->setMinimumSize(320, 240);

    connect(panel_, &VolumeControlPanel::selectVolumeRequested, this, &DashboardRootView::chooseVolume);
    connect(panel_, &VolumeControlPanel::toggleMonitoringRequested, this, &DashboardRootView::toggleMonitoring);
    connect(panel_, &VolumeControlPanel::exportRequested, this, &DashboardRootView::exportChart);
    connect(panel_, &VolumeControlPanel::showSmartInfoRequested, this, &DashboardRootView::showSmartInfo);
    connect(panel_, &VolumeControlPanel::runPerformanceTestRequested, this, &DashboardRootView::runPerformanceTest);
    connect(panel_, &VolumeControlPanel::stopPerformanceTestRequested, this, &DashboardRootView::stopPerformanceTest);
    connect(chart_, &DiskIOChartSection::scaleChanged, this, [this](double scale) { chartScale_ = scale; });
    connect(chart_, &DiskIOChartSection::offsetChanged, this, [this](double offset) { chartOffset_ = offset; });
    connect(chart_, &DiskIOChartSection::chartSizeChanged, this, [this](QSize size) { chartSize_ = size; });
    if (dependencies_.healthRecorder) {
        dependencies_.healthRecorder->setRecordedObserver(
            [this, alive = std::weak_ptr<bool>(alive_)](const std::string& deviceName) {
                if (!alive.expired() && smartSheet_ && smartSheet_->deviceName() == deviceName)
                    smartSheet_->reloadHistory();
            });
    }

    monitorSubscription_ = dependencies_.monitor->subscribe([this](const DiskIOMonitor::State& state) {
        chart_->setQueue(state.selectedVolume ? state.selectedVolume->queue : std::nullopt);
        chart_->setSamples(state.samples, DiskIOMonitor::rawValue(state.samplingPrecision));
        refresh();
    });
    testerSubscription_ = dependencies_.tester->subscribe([this](const DiskPerformanceTester::State& state) {
        if (dependencies_.smartRefresh) dependencies_.smartRefresh->setPaused(state.isRunning);
        testerChanged_ = true;
        refresh();
    });
    // The helper manager posts its request on the main thread.
    approvalSubscription_ = dependencies_.notifications->addObserver(
        std::string(PrivilegedHelperManager::kApprovalNotification), [this, alive = std::weak_ptr<bool>(alive_)] {
            if (alive.expired()) return;
            showHelperApprovalAlert();
        });
    refresh();
}

DashboardRootView::~DashboardRootView() {
    approvalSubscription_.cancel();
    monitorSubscription_.cancel();
    testerSubscription_.cancel();
    alive_.reset();
}

void DashboardRootView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    testerChanged_ = true;  // everything again, in the texts of now
    refresh();
}

void DashboardRootView::refresh() {
    const auto& monitor = dependencies_.monitor->state();
    const auto& tester = dependencies_.tester->state();
    // The panel reads no sample: a batch that leaves the selection and the run as they were
    // leaves the panel as it is, and its capacity texts are not formatted again.
    // Compared in place: the descriptor is copied only when it changed, not with every batch.
    const bool exportEnabled = monitor.samples.size() > 1;
    if (testerChanged_ || !panelInputs_ || panelInputs_->volume != monitor.selectedVolume ||
        panelInputs_->monitoring != monitor.isMonitoring || panelInputs_->exportEnabled != exportEnabled) {
        const auto preview = dependencies_.tester->payloadPreview(monitor.selectedVolume);
        const auto payload = performancePayloadContext(monitor.selectedVolume, tester.dataSize, preview);
        panel_->setContent(dashboard::volumePanelContent(monitor, tester, payload));
        panelInputs_ = PanelInputs{monitor.selectedVolume, monitor.isMonitoring, exportEnabled};
        testerChanged_ = false;
    }
    metrics_->setCards(dashboard::metricCards(monitor));
    bubbles_->setMessages(dashboard::messageBubbles(monitor, tester));
}

QString DashboardRootView::folderChooserStart() {
    return qText(dashboard::folderChooserStart([](const std::string& path) { return QFileInfo(qText(path)).isDir(); },
                                               environment("USER"), environment("HOME")));
}

void DashboardRootView::chooseVolume() {
    if (openDialog_) {
        openDialog_->raise();
        return;
    }
    auto* dialog = new QFileDialog(this, qText(dashboard::folderChooserTitle()), folderChooserStart());
    dialog->setObjectName(QStringLiteral("volumeChooser"));
    dialog->setFileMode(QFileDialog::Directory);
    dialog->setOption(QFileDialog::ShowDirsOnly);
    dialog->setLabelText(QFileDialog::Accept, qText(dashboard::folderChooserConfirm()));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& folder) {
        if (folder.isEmpty()) return;
        // A test of the previous volume must not go on behind the new selection.
        if (dependencies_.tester->state().isRunning) dependencies_.tester->stopTest();
        dependencies_.monitor->selectVolume(folder.toStdString());
    });
    openDialog_ = dialog;
    dialog->open();
}

void DashboardRootView::toggleMonitoring() {
    if (dependencies_.monitor->state().isMonitoring) dependencies_.monitor->stopMonitoring(true);
    else dependencies_.monitor->startMonitoring();
}

void DashboardRootView::exportChart() {
    if (dependencies_.monitor->state().samples.size() < 2 || openDialog_) return;
    const QString suggested =
        QDir(QDir::homePath()).filePath(qText(ChartExportSupport::suggestedFileName(std::chrono::system_clock::now())));
    auto* dialog = new QFileDialog(this, qText(dashboard::exportFinishedTitle()), suggested,
                                   QStringLiteral("CSV (*.csv)"));
    dialog->setObjectName(QStringLiteral("exportDialog"));
    dialog->setWindowTitle(qText(text::localized("导出图表", "Export Chart")));
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setFileMode(QFileDialog::AnyFile);
    dialog->selectFile(suggested);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QFileDialog::fileSelected, this, &DashboardRootView::exportTo);
    openDialog_ = dialog;
    dialog->open();
}

void DashboardRootView::exportTo(const QString& csvPath) {
    if (csvPath.isEmpty()) return;
    const auto& state = dependencies_.monitor->state();
    // The picture's labels follow the window's scheme, so that it reads in an image viewer.
    const auto appearance = isDark(palette()) ? render::Appearance::dark : render::Appearance::light;
    const auto outcome = LatencyExport::exportChart(SampleWindow(state.samples),
                                                    DiskIOMonitor::rawValue(state.samplingPrecision),
                                                    csvPath.toStdString(), render::chartPNGRenderer(appearance));
    if (!outcome) return;
    const QString text = qText(outcome->text);
    auto* alert = new QMessageBox(QMessageBox::Information, qText(dashboard::exportFinishedTitle()), text,
                                  QMessageBox::NoButton, this);
    alert->setObjectName(QStringLiteral("exportAlert"));
    alert->setStyleSheet(kWideAlertText);
    alert->addButton(qText(dashboard::okButton()), QMessageBox::AcceptRole);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    exportAlert_ = alert;
    alert->open();
    Q_EMIT exportFinished(text);
}

void DashboardRootView::showSmartInfo() {
    const auto& volume = dependencies_.monitor->state().selectedVolume;
    if (!volume || !volume->smartInfo) return;
    if (smartSheet_) smartSheet_->close();
    auto* sheet = new SmartInfoSheet(
        dashboard::SmartSheetPayload{Uuid::make(), volume->displayName, *volume->smartInfo}, this,
        SmartHistorySource{dependencies_.healthRecorder, volume->deviceName});
    smartSheet_ = sheet;
    sheet->open();
}

void DashboardRootView::runPerformanceTest() {
    dependencies_.tester->runTest(dependencies_.monitor->state().selectedVolume);
}

void DashboardRootView::stopPerformanceTest() { dependencies_.tester->stopTest(); }

void DashboardRootView::showHelperApprovalAlert() {
    if (approvalAlert_) return;
    const auto backend = dependencies_.helperService ? dependencies_.helperService->backend()
                                                     : HelperServiceBackend::systemd;
    const std::string socket = dependencies_.helperService ? dependencies_.helperService->socketPath() : "";
    auto* alert = new QMessageBox(QMessageBox::Information, qText(smart::helperApprovalTitle()),
                                  qText(smart::helperApprovalMessage(backend, socket)), QMessageBox::NoButton, this);
    alert->setObjectName(QStringLiteral("helperApprovalAlert"));
    alert->setStyleSheet(kWideAlertText);
    alert->addButton(qText(smart::helperApprovalButton()), QMessageBox::AcceptRole);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    approvalAlert_ = alert;
    alert->open();
}

}  // namespace vantorix::ui
