#include "app/VantorixApp.h"

#include <QActionGroup>
#include <QApplication>
#include <QMenuBar>

#include <iostream>

#include "app/ShellWindows.h"
#include "dashboard/ShellTexts.h"
#include "ui/AboutVantorixView.h"
#include "ui/Appearance.h"
#include "ui/DashboardRootView.h"
#include "ui/DesktopFileOpener.h"
#include "ui/FeedbackFormView.h"

namespace vantorix::app {
namespace {

QString qText(const std::string& text) { return QString::fromStdString(text); }

// The main window; it says once, when it is first shown, that the application is up.
class MainWindow final : public QMainWindow {
public:
    explicit MainWindow(std::function<void()> firstShown) : firstShown_(std::move(firstShown)) {}

protected:
    void showEvent(QShowEvent* event) override {
        QMainWindow::showEvent(event);
        if (firstShown_) std::exchange(firstShown_, nullptr)();
    }

private:
    std::function<void()> firstShown_;
};

}  // namespace

VantorixApp::VantorixApp() : VantorixApp(Options{}) {}

VantorixApp::VantorixApp(Options options)
    : options_(std::move(options)),
      mainExecutor_(std::make_shared<ui::QtMainExecutor>()),
      smart_(options_.helperService ? SmartPipeline::over(options_.helperService, mainExecutor_)
                                    : SmartPipeline::system(mainExecutor_, RegistrationPolicy{true})) {
    ui::completeFontFallbacks();
    // The monitor first, then the tester; both live as long as the application.
    System system = System::thisMachine();
    if (options_.httpClient) system.http = options_.httpClient;
    if (options_.downloadsFolder) system.downloadsFolder = options_.downloadsFolder;
    monitor_ = system.makeMonitor(mainExecutor_);
    // Every finished test, and every answer of the selected drive, goes into the drive's history.
    const std::string historyPath = options_.healthHistoryPath.value_or(health::HealthHistory::userPath());
    std::optional<DiskPerformanceTester::Dependencies::History> runHistory;
    if (!historyPath.empty()) runHistory = {historyPath, VANTORIX_VERSION};
    tester_ = system.makeTester(mainExecutor_, options_.testParameters, smart_.temperatureProbe(), runHistory);
    smartRefresh_ = smart_.attachRefresh(monitor_, mainExecutor_);
    if (!historyPath.empty()) {
        healthRecorder_ = std::make_shared<health::HealthRecorder>(historyPath, mainExecutor_);
        smartRefresh_->setRoundObserver([recorder = healthRecorder_](const std::string& deviceName, SmartRefresh::Round,
                                                                     const SMARTInfoProvider::Outcome& fetched) {
            if (!fetched.smartctlJson.empty()) recorder->record(deviceName, fetched.smartctlJson);
        });
    }
    const services::ServiceConfiguration services = options_.serviceConfiguration
                                                        ? *options_.serviceConfiguration
                                                        : services::ServiceConfiguration::current();
    updateChecker_ = services::UpdateChecker::create({system.http, mainExecutor_, services, VANTORIX_VERSION});
    feedbackSubmitter_ = services::FeedbackSubmitter::create({system.http, mainExecutor_, services});
    options_.downloadsFolder = system.downloadsFolder;
    if (!options_.fileOpener) options_.fileOpener = std::make_shared<ui::DesktopFileOpener>();
    if (!options_.serviceConfiguration) options_.serviceConfiguration = services;

    mainWindow_ = std::make_unique<MainWindow>([this] {
        (options_.launchLog != nullptr ? *options_.launchLog : std::cout) << dashboard::kLaunchLine << std::endl;
    });
    mainWindow_->setWindowTitle(QStringLiteral("Vantorix"));
    mainWindow_->setObjectName(QStringLiteral("mainWindow"));
    ui::DashboardRootView::Dependencies dependencies;
    dependencies.monitor = monitor_;
    dependencies.tester = tester_;
    dependencies.mainExecutor = mainExecutor_;
    dependencies.smartRefresh = smartRefresh_;
    dependencies.healthRecorder = healthRecorder_;
    dependencies.helperService = smart_.helperService;
    mainWindow_->setCentralWidget(new ui::DashboardRootView(std::move(dependencies)));
    // The smallest size is the layout's: nothing is squeezed below what it needs to show its text.
    mainWindow_->resize(1240, 800);
    buildMenus();
}

VantorixApp::~VantorixApp() {
    for (auto& [identifier, window] : windows_) delete window.data();
    // The views go before what they observe; then nothing may still run for the engines.
    mainWindow_.reset();
    monitor_->stopMonitoring(false);
    smartRefresh_->cancel();
    tester_->stopTest();
    // A refresh may be waiting for the main thread (helper registration): serve it until it ends.
    while (!smartRefresh_->isFinished()) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    tester_->waitForBackgroundWork();
}

ui::DashboardRootView* VantorixApp::dashboard() const {
    return static_cast<ui::DashboardRootView*>(mainWindow_->centralWidget());
}

void VantorixApp::show() { mainWindow_->show(); }

void VantorixApp::launch(const Launch& request) {
    if (request.precision) monitor_->setSamplingPrecision(*request.precision);
    if (!request.folder) return;
    monitor_->selectVolume(*request.folder);
    if (!request.startMonitoring) return;
    // The selection lands on the main thread; monitoring starts after it, when it succeeded.
    mainExecutor_->post([monitor = std::weak_ptr<DiskIOMonitor>(monitor_)] {
        if (auto locked = monitor.lock(); locked && locked->state().selectedVolume) locked->startMonitoring();
    });
}

void VantorixApp::openWindow(const std::string& identifier) {
    if (QWidget* open = window(identifier)) {
        open->show();
        open->raise();
        open->activateWindow();
        return;
    }
    const bool about = identifier == dashboard::aboutWindow().identifier;
    QWidget* content = nullptr;
    if (about) {
        content = new ui::AboutVantorixView({updateChecker_, options_.serviceConfiguration->contactLink,
                                             VANTORIX_VERSION, VANTORIX_BUILD_NUMBER, options_.downloadsFolder,
                                             options_.fileOpener});
    } else {
        content = new ui::FeedbackFormView(feedbackSubmitter_);
    }
    auto* created = new ShellWindow(about ? dashboard::aboutWindow() : dashboard::feedbackWindow(), content);
    windows_[identifier] = created;
    created->show();
}

QWidget* VantorixApp::window(const std::string& identifier) const {
    const auto found = windows_.find(identifier);
    return found == windows_.end() ? nullptr : found->second.data();
}

void VantorixApp::buildMenus() {
    auto* bar = mainWindow_->menuBar();
    bar->setObjectName(QStringLiteral("menuBar"));
    auto* feedback = bar->addAction(qText(dashboard::feedbackCommandTitle()));
    feedback->setObjectName(QStringLiteral("feedbackCommand"));
    connect(feedback, &QAction::triggered, this, [this] { openWindow(dashboard::feedbackWindow().identifier); });
    auto* about = bar->addAction(qText(dashboard::aboutCommandTitle()));
    about->setObjectName(QStringLiteral("aboutCommand"));
    connect(about, &QAction::triggered, this, [this] { openWindow(dashboard::aboutWindow().identifier); });

    precisionMenu_ = bar->addMenu(qText(dashboard::samplingPrecisionMenuTitle()));
    precisionMenu_->setObjectName(QStringLiteral("samplingPrecisionMenu"));
    precisionMenu_->addSection(qText(dashboard::samplingIntervalPickerTitle()));
    precisionGroup_ = new QActionGroup(precisionMenu_);
    precisionGroup_->setExclusive(true);
    for (const auto& entry : dashboard::samplingPrecisionEntries()) {
        auto* action = precisionMenu_->addAction(qText(entry.label));
        action->setCheckable(true);
        action->setData(DiskIOMonitor::rawValue(entry.value));
        precisionGroup_->addAction(action);
        connect(action, &QAction::triggered, this,
                [this, precision = entry.value] { monitor_->setSamplingPrecision(precision); });
    }
    connect(precisionMenu_, &QMenu::aboutToShow, this, &VantorixApp::refreshPrecisionChecks);
    refreshPrecisionChecks();

    sizeMenu_ = bar->addMenu(qText(dashboard::testSampleSizeMenuTitle()));
    sizeMenu_->setObjectName(QStringLiteral("testSampleSizeMenu"));
    sizeMenu_->addSection(qText(dashboard::payloadPickerTitle()));
    sizeGroup_ = new QActionGroup(sizeMenu_);
    sizeGroup_->setExclusive(true);
    for (const auto& entry : dashboard::testSampleSizeEntries()) {
        auto* action = sizeMenu_->addAction(qText(entry.label));
        action->setCheckable(true);
        action->setData(QString::fromStdString(entry.value.id()));
        sizeGroup_->addAction(action);
        connect(action, &QAction::triggered, this, [this, size = entry.value] { tester_->setDataSize(size); });
    }
    sizeMenu_->addSection(qText(dashboard::testKindPickerTitle()));
    kindGroup_ = new QActionGroup(sizeMenu_);
    kindGroup_->setExclusive(true);
    for (const auto& entry : dashboard::testKindEntries()) {
        auto* action = sizeMenu_->addAction(qText(entry.label));
        action->setCheckable(true);
        action->setData(QString::fromStdString(rawValue(entry.value)));
        kindGroup_->addAction(action);
        connect(action, &QAction::triggered, this, [this, kind = entry.value] {
            TestMode mode = tester_->state().testMode;
            mode.kind = kind;
            tester_->setTestMode(mode);
            refreshSizeChecks();
        });
    }
    sizeMenu_->addSeparator();
    bypassCacheAction_ = sizeMenu_->addAction(qText(dashboard::bypassCacheTitle()));
    bypassCacheAction_->setObjectName(QStringLiteral("bypassCacheAction"));
    bypassCacheAction_->setCheckable(true);
    connect(bypassCacheAction_, &QAction::triggered, this, [this](bool checked) {
        TestMode mode = tester_->state().testMode;
        mode.bypassCache = checked;
        tester_->setTestMode(mode);
        refreshSizeChecks();
    });
    connect(sizeMenu_, &QMenu::aboutToShow, this, &VantorixApp::refreshSizeChecks);
    refreshSizeChecks();
}

void VantorixApp::refreshPrecisionChecks() {
    const int current = DiskIOMonitor::rawValue(monitor_->state().samplingPrecision);
    for (auto* action : precisionGroup_->actions()) action->setChecked(action->data().toInt() == current);
}

void VantorixApp::refreshSizeChecks() {
    const QString current = QString::fromStdString(tester_->state().dataSize.id());
    for (auto* action : sizeGroup_->actions()) action->setChecked(action->data().toString() == current);
    const TestMode& mode = tester_->state().testMode;
    const QString kind = QString::fromStdString(rawValue(mode.kind));
    for (auto* action : kindGroup_->actions()) action->setChecked(action->data().toString() == kind);
    // The queue-depth and sustained-write tests always bypass the cache: shown checked, and not to
    // be changed.
    bypassCacheAction_->setChecked(mode.usesDirectIo());
    bypassCacheAction_->setEnabled(mode.kind == TestKind::standard);
}

}  // namespace vantorix::app
