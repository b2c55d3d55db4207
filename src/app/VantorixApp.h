#pragma once

#include <QMainWindow>
#include <QObject>
#include <QPointer>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "benchmark/DiskPerformanceTester.h"
#include "composition/SmartPipeline.h"
#include "composition/System.h"
#include "health/HealthRecorder.h"
#include "monitor/DiskIOMonitor.h"
#include "platform/HttpClient.h"
#include "services/Feedback.h"
#include "services/ServiceConfiguration.h"
#include "services/UpdateCheck.h"
#include "ui/QtMainExecutor.h"

class QActionGroup;
class QMenu;

namespace vantorix::ui {
class DashboardRootView;
}

namespace vantorix::app {

// The desktop application: it makes the live monitor and then the performance tester once, keeps
// them for its whole life, opens the main window with the dashboard, and offers the reduced menu
// bar (Feedback, About Vantorix, Sampling Precision, Test Sample Size). The About and Feedback
// windows exist at most once each; opening one that is open brings it forward.
class VantorixApp final : public QObject {
    Q_OBJECT
public:
    struct Options {
        // How the SMART helper is run; the system's way when none is given.
        std::shared_ptr<HelperService> helperService;
        // Where the launch line goes (standard output by default).
        std::ostream* launchLog = nullptr;
        // How long the performance test's random phases run, and so on.
        DiskPerformanceTester::Parameters testParameters;
        // The vendor's web service: where it is (the build's values and the environment's when not
        // given), how it is reached (libcurl when not given), where downloads go and what opens them.
        std::optional<services::ServiceConfiguration> serviceConfiguration;
        std::shared_ptr<HttpClient> httpClient;
        std::function<std::string()> downloadsFolder;
        std::shared_ptr<services::FileOpener> fileOpener;
        // The drive-health history every SMART refresh is recorded into; the user's file when not
        // given, none when empty.
        std::optional<std::string> healthHistoryPath;
    };

    VantorixApp();
    explicit VantorixApp(Options options);
    ~VantorixApp() override;

    QMainWindow* mainWindow() const { return mainWindow_.get(); }
    ui::DashboardRootView* dashboard() const;
    const std::shared_ptr<DiskIOMonitor>& monitor() const { return monitor_; }
    const std::shared_ptr<DiskPerformanceTester>& tester() const { return tester_; }
    const std::shared_ptr<ui::QtMainExecutor>& mainExecutor() const { return mainExecutor_; }
    const std::shared_ptr<health::HealthRecorder>& healthRecorder() const { return healthRecorder_; }

    // Opens (or brings forward) the window with this identifier: "about-vantorix-window" or
    // "feedback-vantorix-window".
    void openWindow(const std::string& identifier);
    // The open window with this identifier, if any.
    QWidget* window(const std::string& identifier) const;

    QMenu* samplingPrecisionMenu() const { return precisionMenu_; }
    QMenu* testSampleSizeMenu() const { return sizeMenu_; }

    void show();

    // What the command line asks for at launch: a sampling precision, a folder whose volume is
    // selected, and whether monitoring starts at once.
    struct Launch {
        std::optional<DiskIOMonitor::SamplingPrecision> precision;
        std::optional<std::string> folder;
        bool startMonitoring = false;
    };
    void launch(const Launch& request);

private:
    void buildMenus();
    void refreshPrecisionChecks();
    void refreshSizeChecks();

    Options options_;
    std::shared_ptr<ui::QtMainExecutor> mainExecutor_;
    SmartPipeline smart_;
    std::shared_ptr<DiskIOMonitor> monitor_;
    std::shared_ptr<DiskPerformanceTester> tester_;
    std::shared_ptr<SmartRefresh> smartRefresh_;
    std::shared_ptr<health::HealthRecorder> healthRecorder_;  // null: nothing is recorded
    std::unique_ptr<QMainWindow> mainWindow_;
    QMenu* precisionMenu_ = nullptr;
    QMenu* sizeMenu_ = nullptr;
    QActionGroup* precisionGroup_ = nullptr;
    QActionGroup* sizeGroup_ = nullptr;
    QActionGroup* kindGroup_ = nullptr;
    QAction* bypassCacheAction_ = nullptr;
    std::map<std::string, QPointer<QWidget>> windows_;
    // Kept for the application's life: closing a window does not end its check, download or submission.
    std::shared_ptr<services::UpdateChecker> updateChecker_;
    std::shared_ptr<services::FeedbackSubmitter> feedbackSubmitter_;
};

}  // namespace vantorix::app
