#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QTest>

#include <sstream>

#include "app/VantorixApp.h"
#include "support/ScopedEnvironment.h"
#include "support/SubstituteHelperService.h"
#include "ui/DashboardRootView.h"
#include "ui/InteractiveButton.h"
#include "ui/ScopedScheme.h"
#include "ui/VolumeControlPanel.h"

namespace vantorix::app {
namespace {

using ::testing::HasSubstr;

// Saves a picture of a window for people to look at.
void screenshot(QWidget* widget, const std::string& name) {
    QDir().mkpath(QStringLiteral(VANTORIX_SCREENSHOT_DIR));
    widget->grab().save(QStringLiteral(VANTORIX_SCREENSHOT_DIR "/") + QString::fromStdString(name) +
                        QStringLiteral(".png"));
}

// The application with a substitute helper service: an administrator has yet to enable the SMART
// helper, so nothing is enabled or started.
struct Application {
    explicit Application(const std::string& lang) : language(lang) {
        services = std::make_shared<testing::SubstituteHelperService>(testing::SubstituteHelperService::Script{
            .state = HelperServiceState::needsAdministrator,
            .enableError = HelperServiceError{HelperServiceFailure::needsAdministrator, "approve", ""}});
        VantorixApp::Options options;
        options.helperService = services;
        options.launchLog = &launches;
        app = std::make_unique<VantorixApp>(std::move(options));
    }
    testing::ScopedLanguage language;
    std::shared_ptr<testing::SubstituteHelperService> services;
    std::ostringstream launches;
    std::unique_ptr<VantorixApp> app;
};

template <class Predicate>
bool waitFor(Predicate predicate) {
    return QTest::qWaitFor(predicate, 20000);
}

// Shows the menu for its screenshot.
void screenshot(QMenu* menu, const std::string& name) {
    menu->popup(QPoint(0, 0));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(menu));
    screenshot(static_cast<QWidget*>(menu), name);
    menu->hide();
}

// The texts of the menu's entries (or of those checked), or of the menu bar's.
QStringList texts(QWidget* menu, bool checkedOnly = false) {
    QStringList result;
    for (auto* action : menu->actions()) {
        if (!action->text().isEmpty() && (!checkedOnly || action->isChecked())) result << action->text();
    }
    return result;
}

TEST(VantorixApp, MenuBarHoldsTheFourCommandsAndPickersShowTheCurrentValues) {
    Application english("en_US.UTF-8");
    auto& app = *english.app;
    app.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(app.mainWindow()));
    app.mainWindow()->hide();
    app.show();
    EXPECT_EQ(english.launches.str(), "[Vantorix] App launched and root window created.\n");  // once

    EXPECT_EQ(texts(app.mainWindow()->menuBar()),
              (QStringList{"Feedback", "About Vantorix", "Sampling Precision", "Test Sample Size"}));
    EXPECT_EQ(texts(app.samplingPrecisionMenu()),
              (QStringList{"Sampling Interval", "1 ms", "10 ms", "100 ms", "1000 ms"}));
    EXPECT_EQ(texts(app.samplingPrecisionMenu(), true), QStringList{"1000 ms"});
    EXPECT_EQ(texts(app.testSampleSizeMenu(), true), (QStringList{"Full Disk", "Standard (Four Phases)"}));
    const QStringList sizes = texts(app.testSampleSizeMenu());
    EXPECT_EQ(sizes.mid(sizes.indexOf("10000 GB") + 1),
              (QStringList{"Test Kind", "Standard (Four Phases)", "Queue Depth (io_uring)", "Sustained Write",
                           "Bypass Cache"}));

    // A choice made elsewhere shows when the menu opens next; a choice in the menu reaches the engine.
    app.monitor()->setSamplingPrecision(DiskIOMonitor::SamplingPrecision::ms100);
    Q_EMIT app.samplingPrecisionMenu()->aboutToShow();
    EXPECT_EQ(texts(app.samplingPrecisionMenu(), true), QStringList{"100 ms"});
    app.samplingPrecisionMenu()->actions()[2]->trigger();
    EXPECT_EQ(app.monitor()->state().samplingPrecision, DiskIOMonitor::SamplingPrecision::ms10);
    app.testSampleSizeMenu()->actions()[3]->trigger();
    EXPECT_EQ(app.tester()->state().dataSize, DataSize::gigabytes(10));

    // Bypass Cache is a switch of the standard test; the other tests always bypass.
    const auto trigger = [&](const QString& text) {
        for (auto* action : app.testSampleSizeMenu()->actions()) {
            if (action->text() == text) action->trigger();
        }
    };
    trigger("Bypass Cache");
    EXPECT_EQ(app.tester()->state().testMode, (TestMode{TestKind::standard, true, 5}));
    trigger("Queue Depth (io_uring)");
    EXPECT_EQ(app.tester()->state().testMode.kind, TestKind::queueDepth);
    Q_EMIT app.testSampleSizeMenu()->aboutToShow();
    EXPECT_EQ(texts(app.testSampleSizeMenu(), true), (QStringList{"10 GB", "Queue Depth (io_uring)", "Bypass Cache"}));
    EXPECT_FALSE(app.testSampleSizeMenu()->actions().back()->isEnabled());
    screenshot(app.testSampleSizeMenu(), "test-sample-size-menu-en-light");
    trigger("Sustained Write");
    EXPECT_EQ(app.tester()->state().testMode.kind, TestKind::sustainedWrite);
    EXPECT_FALSE(app.testSampleSizeMenu()->actions().back()->isEnabled());
    trigger("Standard (Four Phases)");
    trigger("Bypass Cache");
    EXPECT_EQ(app.tester()->state().testMode, TestMode{});
}

// Their titles in Chinese are translations like the menu's; their contents are the service windows' tests.
TEST(VantorixApp, AboutAndFeedbackAreSingleWindowsWithTheirTitlesAndSizes) {
    Application english("en_US.UTF-8");
    auto& app = *english.app;
    auto* bar = app.mainWindow()->menuBar();
    bar->actions()[1]->trigger();
    bar->actions()[1]->trigger();
    bar->actions()[0]->trigger();
    QWidget* aboutWindow = app.window("about-vantorix-window");
    QWidget* feedbackWindow = app.window("feedback-vantorix-window");
    ASSERT_NE(aboutWindow, nullptr);
    ASSERT_NE(feedbackWindow, nullptr);
    const auto windows = QApplication::topLevelWidgets();
    const auto isAbout = [](QWidget* w) { return w->objectName() == "about-vantorix-window" && w->isVisible(); };
    EXPECT_EQ(std::count_if(windows.begin(), windows.end(), isAbout), 1);
    EXPECT_EQ(aboutWindow->windowTitle(), "About Vantorix");
    EXPECT_EQ(feedbackWindow->windowTitle(), "Thanks for your feedback.");
    EXPECT_EQ(aboutWindow->size(), QSize(420, 380));
    EXPECT_EQ(feedbackWindow->size(), QSize(520, 560));
    aboutWindow->close();
    EXPECT_TRUE(waitFor([&] { return app.window("about-vantorix-window") == nullptr; }));
}

// The dashboard on this machine's root volume, through the real dialog: choose it and hear the
// helper's approval request. Monitoring and the SMART sheet are the desktop flow's.
TEST(VantorixApp, DashboardChoosesAVolumeAndAlerts) {
    Application english("en_US.UTF-8");
    auto& app = *english.app;
    app.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(app.mainWindow()));
    auto* dashboard = app.dashboard();
    auto* panel = dashboard->panel();
    EXPECT_FALSE(panel->performanceButton()->isEnabled());
    screenshot(app.mainWindow(), "main-empty-en");

    // Buttons are pressed with Space.
    panel->chooseVolumeButton()->setFocus(Qt::TabFocusReason);
    QTest::keyClick(panel->chooseVolumeButton(), Qt::Key_Space);
    QFileDialog* chooser = dashboard->openDialog();
    ASSERT_NE(chooser, nullptr);
    EXPECT_EQ(chooser->windowTitle(), "Choose volume to monitor");
    chooser->selectFile(QStringLiteral("/"));
    static_cast<QDialog*>(chooser)->accept();  // QFileDialog keeps accept() protected
    ASSERT_TRUE(waitFor([&] { return app.monitor()->state().selectedVolume.has_value(); }));

    // The SMART refresh asked the helper manager, which asks for an administrator's approval.
    ASSERT_TRUE(waitFor([&] { return dashboard->helperApprovalAlert() != nullptr; }));
    EXPECT_EQ(dashboard->helperApprovalAlert()->windowTitle(), "Enable Permissions");
    EXPECT_THAT(dashboard->helperApprovalAlert()->text().toStdString(),
                HasSubstr("sudo systemctl enable --now vantorix-smartctl-helper.socket"));
    screenshot(dashboard->helperApprovalAlert(), "helper-approval-en");
    dashboard->helperApprovalAlert()->buttons().front()->click();
    EXPECT_TRUE(waitFor([&] { return dashboard->helperApprovalAlert() == nullptr; }));

    // Every usable button is reached with Tab.
    app.mainWindow()->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(app.mainWindow()));
    panel->chooseVolumeButton()->setFocus(Qt::TabFocusReason);
    QList<QWidget*> reached;
    for (int i = 0; i < 20 && QApplication::focusWidget() && !reached.contains(QApplication::focusWidget()); ++i) {
        reached << QApplication::focusWidget();
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    }
    for (auto* button : panel->findChildren<ui::InteractiveButton*>()) {
        EXPECT_TRUE(!button->isVisible() || !button->isEnabled() || reached.contains(button))
            << button->text().toStdString();
    }
    EXPECT_GE(reached.size(), 3);
    screenshot(app.mainWindow(), "main-selected-en");
}

TEST(VantorixApp, LooksRightInChineseAndInADarkScheme) {
    const ui::ScopedScheme dark(true);
    Application chinese("zh_CN.UTF-8");
    auto& app = *chinese.app;
    app.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(app.mainWindow()));
    auto* panel = app.dashboard()->panel();
    // Nothing is cut off at the smallest window size.
    app.mainWindow()->resize(app.mainWindow()->minimumSize());
    QCoreApplication::processEvents();
    for (auto* button : panel->findChildren<ui::InteractiveButton*>()) {
        EXPECT_GE(button->width(), button->sizeHint().width()) << button->text().toStdString();
    }
    screenshot(app.mainWindow(), "main-empty-zh-dark-minimum");
    screenshot(app.testSampleSizeMenu(), "test-sample-size-menu-zh-dark");
    // The window with a volume is pictured in every language and scheme by the desktop flow.
}

}  // namespace
}  // namespace vantorix::app
