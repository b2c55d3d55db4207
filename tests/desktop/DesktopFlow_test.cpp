#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QMenu>
#include <QTableWidget>
#include <QTest>

#include <csignal>
#include <filesystem>
#include <future>
#include <sstream>

#include "app/QuitOnSignals.h"
#include "app/VantorixApp.h"
#include "benchmark/PageCacheCheck.h"
#include "benchmark/PerformanceReport.h"
#include "health/HealthHistory.h"
#include "support/BlockDevice.h"
#include "support/HelperDaemon.h"
#include "support/LoopVolume.h"
#include "support/ScopedEnvironment.h"
#include "support/SmartctlStandIn.h"
#include "support/TemporaryFolder.h"
#include "text/Formats.h"
#include "ui/DashboardRootView.h"
#include "ui/DiskIOChartSection.h"
#include "ui/DiskIOGraphCanvas.h"
#include "ui/ErrorBubbleStack.h"
#include "ui/InteractiveButton.h"
#include "ui/MetricCardView.h"
#include "ui/PerformanceMetricsStrip.h"
#include "ui/ScopedScheme.h"
#include "ui/SmartInfoSheet.h"
#include "ui/VolumeControlPanel.h"

namespace vantorix::app {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

struct Variant {
    std::string language;
    bool dark;
};

void PrintTo(const Variant& variant, std::ostream* out) {
    *out << variant.language << (variant.dark ? " dark" : " light");
}

// "enLight", "zhDark": the name of the test's variant and of its pictures.
std::string nameOf(const Variant& variant) { return variant.language.substr(0, 2) + (variant.dark ? "Dark" : "Light"); }

void screenshot(QWidget* widget, const Variant& variant, const std::string& what) {
    QDir().mkpath(QStringLiteral(VANTORIX_SCREENSHOT_DIR));
    const std::string scale = qApp->devicePixelRatio() > 1.5 ? "@2x" : "";
    widget->grab().save(QString::fromStdString(std::string(VANTORIX_SCREENSHOT_DIR) + "/flow-" + what + "-" +
                                               nameOf(variant) + scale + ".png"));
}

bool waitFor(const std::function<bool()>& predicate, int milliseconds = 30000) {
    return QTest::qWaitFor(predicate, milliseconds);
}

void accept(QFileDialog* dialog, const std::string& path) {
    dialog->selectFile(QString::fromStdString(path));
    static_cast<QDialog*>(dialog)->accept();  // QFileDialog keeps accept() protected
}

class DesktopFlow : public ::testing::TestWithParam<Variant> {};

// A person's session on a loop-mounted volume whose SMART data come from the real helper daemon
// (running a stand-in for smartctl): choose the volume, read the SMART sheet, watch a 64 MiB
// write, export the chart, run a test, stop another one halfway, and end by SIGTERM during a third.
TEST_P(DesktopFlow, ASessionOnALoopVolume) {
    const Variant& variant = GetParam();
    if (const auto reason = testing::LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    auto volume = testing::LoopVolume::create("vx-desktop", 1280ULL << 20, &error);
    ASSERT_NE(volume, nullptr) << error;
    auto smartctl = testing::SmartctlStandIn::create(
        {testing::StandInBehaviour::Mode::print,
         std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json", "", 0});
    auto daemon = testing::HelperDaemon::start({smartctl->path(), {}}, &error);
    ASSERT_NE(daemon, nullptr) << error;
    testing::ScopedEnvironment helperSocket({{"VANTORIX_HELPER_SOCKET", daemon->socketPath()}});
    testing::ScopedLanguage language(variant.language);
    const ui::ScopedScheme scheme(variant.dark);
    const bool english = variant.language.starts_with("en");

    std::ostringstream launches;
    VantorixApp::Options options;
    options.launchLog = &launches;
    // A short test: the payload rule asks for a gigabyte free, but each phase moves 64 MiB.
    options.testParameters.randomPhaseDuration = 2.0;
    options.testParameters.payloadBytes = 64ULL << 20;
    auto owned = std::make_unique<VantorixApp>(options);
    auto& app = *owned;
    app.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(app.mainWindow()));
    auto* dashboard = app.dashboard();
    auto* panel = dashboard->panel();
    screenshot(app.mainWindow(), variant, "empty");

    // The volume through the folder chooser; its SMART data through the helper.
    QTest::mouseClick(panel->chooseVolumeButton(), Qt::LeftButton);
    ASSERT_NE(dashboard->openDialog(), nullptr);
    accept(dashboard->openDialog(), volume->mountPoint());
    const QString smartHint = english ? "View SMART details provided by the system" : "查看系统提供的 SMART 详细信息";
    ASSERT_TRUE(waitFor([&] { return panel->smartHint() == smartHint; })) << panel->smartHint().toStdString();
    EXPECT_THAT(panel->infoTexts().front().toStdString(), HasSubstr(volume->deviceName()));
    QTest::mouseClick(panel->smartButton(), Qt::LeftButton);
    ASSERT_NE(dashboard->smartSheet(), nullptr);
    EXPECT_EQ(
        dashboard->smartSheet()->rows()->findItems(QStringLiteral("INTEL SSDPEKNW010T8"), Qt::MatchExactly).size(), 1);
    screenshot(dashboard->smartSheet(), variant, "smart-sheet");
    dashboard->smartSheet()->accept();

    // Monitoring at 10 ms while 64 MiB are written past the page cache.
    app.samplingPrecisionMenu()->actions()[2]->trigger();
    QTest::mouseClick(panel->monitoringButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return app.monitor()->state().samples.size() > 10; }));
    EXPECT_EQ(panel->monitoringButton()->text(), english ? "Stop" : "停止监控");
    const auto cards = dashboard->metrics()->visibleCards();
    ASSERT_GE(cards.size(), 7U);
    const QString idleWriteSpeed = cards[1]->value();
    auto writer = std::async(std::launch::async,
                             [&] { return testing::writeDirect(volume->mountPoint() + "/written", 64); });
    bool sawWriteSpeed = false;
    ASSERT_TRUE(waitFor([&] {
        sawWriteSpeed = sawWriteSpeed || cards[1]->value() != idleWriteSpeed;
        return writer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    ASSERT_TRUE(writer.get());
    ASSERT_TRUE(waitFor([&] { return app.monitor()->state().totalWriteBytes >= (64ULL << 20); }));
    // The card averages over the last second: the write shows there for a while after it ended.
    EXPECT_TRUE(waitFor([&] { return sawWriteSpeed = cards[1]->value() != idleWriteSpeed; }, 1000));
    EXPECT_EQ(cards[5]->value().toStdString(), text::totalBytesText(app.monitor()->state().totalWriteBytes));

    QTest::mouseClick(panel->monitoringButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return !app.monitor()->state().isMonitoring; }));

    // The graph draws the samples (hovering them is the widget tests').
    auto* canvas = dashboard->chart()->canvas();
    ASSERT_TRUE(waitFor([&] { return !canvas->hasPendingPoints() && !canvas->frame().drawn.empty(); }));
    screenshot(app.mainWindow(), variant, "monitoring");
    // The same samples as latency and as load, then back.
    for (const auto& [measure, name] : {std::pair{GraphMeasure::latency, "monitoring-latency"},
                                        {GraphMeasure::load, "monitoring-load"},
                                        {GraphMeasure::throughput, ""}}) {
        dashboard->chart()->setMeasure(measure);
        QCoreApplication::processEvents();
        if (*name != '\0') screenshot(app.mainWindow(), variant, name);
    }

    // The chart to a folder of its own.
    const fs::path folder = fs::path(volume->mountPoint()) / "exported";
    fs::create_directories(folder);
    QTest::mouseClick(panel->exportButton(), Qt::LeftButton);
    ASSERT_NE(dashboard->openDialog(), nullptr);
    accept(dashboard->openDialog(), (folder / "run.csv").string());
    ASSERT_TRUE(waitFor([&] { return dashboard->exportAlert() != nullptr; }));
    const std::string csv = (folder / "run.csv").string(), png = (folder / "run.png").string();
    const std::string latency = (folder / "run-latency.csv").string();
    EXPECT_EQ(dashboard->exportAlert()->text().toStdString(),
              english ? "CSV saved to: " + csv + "\nPNG saved to: " + png + "\nLatency CSV saved to: " + latency
                      : "CSV 已保存至：" + csv + "\nPNG 已保存至：" + png + "\n延迟 CSV 已保存至：" + latency);
    EXPECT_TRUE(fs::exists(folder / "run.csv") && fs::exists(folder / "run.png") && fs::exists(latency));
    screenshot(dashboard->exportAlert(), variant, "export-alert");
    dashboard->exportAlert()->buttons().front()->click();

    // A test of the volume's free space: progress in the strip, then the results and the report.
    const auto filesBefore = testing::namesIn(volume->mountPoint());
    QTest::mouseClick(panel->performanceButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] {
        const auto& progress = app.tester()->state().progressState;
        return progress && progress->elapsedTime > 0.2 && !panel->strip()->itemTexts().isEmpty();
    }));
    screenshot(app.mainWindow(), variant, "test-running");
    ASSERT_TRUE(waitFor([&] { return app.tester()->state().automaticReportMessage.has_value(); }, 120000))
        << app.tester()->state().errorMessage.value_or("");
    ASSERT_TRUE(app.tester()->state().lastResult.has_value());
    ASSERT_TRUE(app.tester()->state().lastReportPath.has_value());
    const auto banners = dashboard->bubbles()->banners();
    EXPECT_TRUE(std::any_of(banners.begin(), banners.end(), [&](auto* banner) {
        return banner->message().toStdString() == *app.tester()->state().automaticReportMessage;
    }));
    screenshot(app.mainWindow(), variant, "results");
    // Both read phases were served from the page cache the writes had just filled: the strip and
    // the report say so, naming them; the flushed sequential write reached the device.
    const std::string report = testing::fileContents(*app.tester()->state().lastReportPath);
    for (const auto phase : {BenchmarkPhase::randomRead, BenchmarkPhase::sequentialRead}) {
        EXPECT_THAT(panel->strip()->warningText().toStdString(), HasSubstr(pageCacheWarning(phase)));
        EXPECT_THAT(report, HasSubstr(report::htmlEscaped(pageCacheWarning(phase))));
    }
    EXPECT_THAT(panel->strip()->itemTexts().join('\n').toStdString(),
                HasSubstr(phaseName(BenchmarkPhase::sequentialRead) +
                          (english ? ": moved 67.1\u00a0MB, device read" : "：传输 67.1\u00a0MB，设备读取")));
    EXPECT_THAT(report, Not(HasSubstr(report::htmlEscaped(pageCacheWarning(BenchmarkPhase::sequentialWrite)))));
    // The run is in the user's history, for the drive the loop device is made of.
    auto history = health::HealthHistory::open(health::HealthHistory::userPath());
    ASSERT_TRUE(history) << history.error();
    const auto runs = history.value()->runs("file:" + volume->backingFile());
    ASSERT_TRUE(runs && runs->size() == 1U);
    EXPECT_EQ(runs->front().kind, "standard");
    auto withReport = filesBefore;
    withReport.insert(fs::path(*app.tester()->state().lastReportPath).filename().string());
    EXPECT_EQ(testing::namesIn(volume->mountPoint()), withReport);

    // Stopped halfway, a test leaves nothing behind.
    QTest::mouseClick(panel->performanceButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] {
        return app.tester()->state().progressState.has_value() && testing::namesIn(volume->mountPoint()) != withReport;
    }));
    QTest::mouseClick(panel->performanceButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor([&] { return !app.tester()->state().isRunning; }));
    app.tester()->waitForBackgroundWork();
    EXPECT_EQ(testing::namesIn(volume->mountPoint()), withReport);

    // SIGTERM during a test ends the program as closing the window does: the files go.
    QTest::mouseClick(panel->performanceButton(), Qt::LeftButton);
    ASSERT_TRUE(waitFor(
        [&] { return app.tester()->state().isRunning && testing::namesIn(volume->mountPoint()) != withReport; }));
    {
        QuitOnSignals quit({SIGTERM});
        ::raise(SIGTERM);
        EXPECT_EQ(QApplication::exec(), 0);
        EXPECT_EQ(quit.received(), SIGTERM);
    }
    owned.reset();
    EXPECT_EQ(testing::namesIn(volume->mountPoint()), withReport);
}

INSTANTIATE_TEST_SUITE_P(LanguagesAndSchemes, DesktopFlow,
                         ::testing::Values(Variant{"en_US.UTF-8", false}, Variant{"en_US.UTF-8", true},
                                           Variant{"zh_CN.UTF-8", false}, Variant{"zh_CN.UTF-8", true}),
                         [](const ::testing::TestParamInfo<Variant>& param) { return nameOf(param.param); });

}  // namespace
}  // namespace vantorix::app
