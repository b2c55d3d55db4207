#include "ScopedScheme.h"
#include "benchmark/PerformanceReport.h"
#include "benchmark/ResultHistory.h"
#include "health/HealthRecorder.h"
#include "monitor/FixedRingBuffer.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "ui/Appearance.h"
#include "ui/DiskIOChartSection.h"
#include "ui/DiskIOGraphCanvas.h"
#include "ui/HealthHistoryCanvas.h"
#include "ui/QtMainExecutor.h"
#include "ui/QtText.h"
#include "ui/SegmentedControl.h"
#include "ui/SmartInfoSheet.h"
#include "ui/VolumeControlPanel.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QSignalSpy>
#include <QSvgRenderer>
#include <QTest>
#include <QWheelEvent>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace vantorix::ui {
namespace {

using vantorix::testing::ScopedLanguage;

// Saves a picture of the widget for people to look at, at `ratio` device pixels a pixel.
void save(QWidget& widget, const std::string& name, qreal ratio = 1) {
    QDir().mkpath(VANTORIX_SCREENSHOT_DIR);
    widget.layout()->activate();  // a hidden widget's layout may still be pending
    QImage image((QSizeF(widget.size()) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(ratio);
    image.fill(Qt::transparent);
    widget.render(&image);
    EXPECT_TRUE(image.save(QString::fromStdString(std::string(VANTORIX_SCREENSHOT_DIR "/") + name + ".png")));
}

// Read and write bytes per second of sample i: a slow wave and bursts, so both lines show shape.
std::uint64_t readAt(std::size_t i) {
    return static_cast<std::uint64_t>(3.2e8 + 2.4e8 * std::sin(static_cast<double>(i) / 9));
}
std::uint64_t writeAt(std::size_t i) { return i % 23 < 4 ? 680'000'000 : 90'000'000 + 1'000'000 * (i % 7); }
// The request counters of a second to go with them: the write bursts queue deeper and wait longer,
// and now and then a few seconds complete no read.
LoadCounters loadAt(std::size_t i) {
    const bool burst = i % 23 < 4;
    const std::uint64_t reads = i % 41 < 3 ? 0 : 2000 + 100 * (i % 9), readMs = reads * (3 + i % 5) / 10;
    const std::uint64_t writes = burst ? 5200 : 700, writeMs = writes * (burst ? 31 : 9) / 10;
    const std::uint64_t busy = burst ? 990 : 420 + 20 * (i % 9), queued = burst ? 7400 : 900 + 60 * (i % 5);
    return {std::chrono::seconds(1), reads, writes, readMs, writeMs, busy, queued, 0, 0, burst ? 6U : 1U};
}

// The dashboard's card with the graph, shown on the offscreen platform, fed like the monitor
// feeds it: the whole history once per batch, at 1 s intervals.
struct Graph {
    std::shared_ptr<QtMainExecutor> main = std::make_shared<QtMainExecutor>();
    DiskIOChartSection section{main};
    DiskIOGraphCanvas* canvas = section.canvas();
    FixedRingBuffer<DiskSample> history{60'000};

    Graph() {
        section.resize(760, 320);
        section.show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(&section));
    }

    void append(std::size_t count, bool settled = true) {
        for (std::size_t n = history.count(), end = n + count; n < end; ++n)
            history.append(DiskSample{Uuid::make(), std::chrono::sys_seconds(std::chrono::seconds(1'740'816'930 + n)),
                                      readAt(n), writeAt(n), 1, 1, loadAt(n)});
        section.setSamples(history.elements(), 1000);
        if (settled) settle();
    }
    // Runs the event loop until the cache has published the batch's points and they are painted.
    void settle() {
        EXPECT_TRUE(QTest::qWaitFor([this] { return !canvas->hasPendingPoints(); }));
        QCoreApplication::processEvents();
    }
    QPointF graphPoint(double x, double y) const { return canvas->graphRect().topLeft() + QPointF(x, y); }
    void mouse(QEvent::Type type, QPointF at, Qt::MouseButton button, Qt::MouseButtons buttons) {
        QMouseEvent event(type, at, canvas->mapToGlobal(at), button, buttons, Qt::NoModifier);
        QApplication::sendEvent(canvas, &event);
    }
    void wheel(int angle) {
        const QPointF at = graphPoint(100, 50);
        QWheelEvent event(at, canvas->mapToGlobal(at), {}, {0, angle}, Qt::NoButton, Qt::ControlModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(canvas, &event);
    }
};

TEST(DiskIOGraphCanvas, PaintsNoneSomeAndAFullWindowOfSamples) {
    struct Case {
        std::size_t samples;
        std::size_t points;
        const char* screenshot;
    };
    const Case cases[] = {{0, 0, "graph-empty"}, {10, 10, "graph-10-samples"}, {300, 256, "graph-300-samples"}};
    const ScopedLanguage english("en_US.UTF-8");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.samples);
        Graph graph;
        graph.append(c.samples);
        const auto frame = graph.canvas->frame();
        EXPECT_EQ(frame.drawn.size(), c.points);
        EXPECT_EQ(frame.readLine.size(), c.points);
        EXPECT_EQ(frame.throughputTicks.size(), c.points > 0 ? 5u : 1u);
        save(graph.section, c.screenshot);
    }
}

// Batches that come faster than the graph redraws are drawn together, and the newest is drawn.
TEST(DiskIOGraphCanvas, BatchesInQuickSuccessionEndWithTheNewestDrawn) {
    Graph graph;
    graph.append(10);
    for (int batch = 0; batch < 3; ++batch) graph.append(1, false);
    EXPECT_TRUE(graph.canvas->hasPendingPoints());
    graph.settle();
    EXPECT_EQ(graph.canvas->frame().drawn.size(), 13u);
}

// The limits of the zoom are GraphGeometry's; here, that the wheel reaches them.
TEST(DiskIOGraphCanvas, CtrlWheelCommitsAZoom) {
    // Small steps add up until the zoom changes by 1 %.
    struct Case {
        std::vector<int> angles;
        double expected;
        int signals;
    };
    for (const Case& c : {Case{{120}, 1.1, 1}, Case{{8}, 1, 0}, Case{{8, 8}, std::pow(1.1, 16.0 / 120), 1}}) {
        Graph graph;
        graph.append(40);
        QSignalSpy spy(&graph.section, &DiskIOChartSection::scaleChanged);
        for (const int angle : c.angles) graph.wheel(angle);
        EXPECT_DOUBLE_EQ(graph.section.scale(), c.expected) << c.angles.size();
        EXPECT_EQ(spy.count(), c.signals) << c.angles.size();
    }
}

// Where a drag stops is GraphGeometry's; here, that a drag moves the graph and commits the offset.
TEST(DiskIOGraphCanvas, DragCommitsAReachableOffset) {
    struct Case {
        const char* name;
        double scale, dx, shift;
    };
    const Case cases[] = {{"scale 2: left by 200", 2, -200, -200},
                          {"under 10 px is no drag", 2, -8, 0},
                          {"scale 1: nothing moves", 1, -200, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Graph graph;
        graph.append(256);
        graph.section.setScale(c.scale);
        QSignalSpy spy(&graph.section, &DiskIOChartSection::offsetChanged);
        const QPointF start = graph.graphPoint(400, 100), end = start + QPointF(c.dx, 3);
        graph.mouse(QEvent::MouseButtonPress, start, Qt::LeftButton, Qt::LeftButton);
        graph.mouse(QEvent::MouseMove, end, Qt::NoButton, Qt::LeftButton);
        EXPECT_EQ(graph.canvas->dragTranslation(), std::abs(c.dx) >= 10 ? c.dx : 0);
        graph.mouse(QEvent::MouseButtonRelease, end, Qt::LeftButton, Qt::NoButton);
        EXPECT_EQ(graph.canvas->dragTranslation(), 0);
        // The graph stays where the drag left it, and the offset is exactly that place.
        EXPECT_EQ(spy.count(), c.shift != 0 ? 1 : 0);
        EXPECT_DOUBLE_EQ(graph.canvas->frame().slots.shift, c.shift);
        EXPECT_DOUBLE_EQ(graph.section.offset(), c.shift);
        if (c.shift != 0) save(graph.section, "graph-zoomed-shifted", 2);
    }
}

TEST(DiskIOGraphCanvas, HoverShowsTheTooltipAndLeavingClearsIt) {
    // The texts are GraphGeometry's; here, that they show in both languages.
    for (const std::string lang : {"en", "zh"}) {
        SCOPED_TRACE(lang);
        const ScopedLanguage language(lang == "en" ? "en_US.UTF-8" : "zh_CN.UTF-8");
        Graph graph;
        graph.append(200);
        // Sample 184 of the 200 sits 56 + 184 slots from the left; the pointer is a bit right of it.
        const auto slots = graph.canvas->frame().slots;
        graph.mouse(QEvent::MouseMove, graph.graphPoint(slots.x(184) + slots.spacing * 0.3, 60), Qt::NoButton,
                    Qt::NoButton);
        ASSERT_TRUE(graph.canvas->hoveredSample());
        EXPECT_EQ(graph.canvas->hoveredSample()->index, 184);
        EXPECT_EQ(graph.canvas->tooltipLines()->secondary.find(lang == "en" ? "Read: " : "读取: "), 0u);
        ASSERT_TRUE(graph.canvas->tooltipRect());
        EXPECT_TRUE(QRectF(graph.canvas->rect()).contains(*graph.canvas->tooltipRect()));
        const std::string name = "graph-hover-" + lang;
        save(graph.section, name + "-light");
        save(graph.section, name + "-light@2x", 2);
        const ScopedScheme dark(true);
        QCoreApplication::processEvents();
        save(graph.section, name + "-dark");

        QEvent leave(QEvent::Leave);
        QApplication::sendEvent(graph.canvas, &leave);
        EXPECT_FALSE(graph.canvas->hoveredSample());
        EXPECT_FALSE(graph.canvas->tooltipLines());
    }
}

// The switch changes what the lines, the axis, the legend and the tooltip show, and nothing of the
// zoom, the shift or which sample the pointer hovers.
TEST(DiskIOGraphCanvas, TheMeasureSwitchKeepsZoomShiftAndHover) {
    struct Case {
        GraphMeasure measure;
        int segment;
        std::string name, english, chinese;  // the tooltip's second line starts with the language's
    };
    const Case cases[] = {{GraphMeasure::latency, 1, "latency", "Read: ", "读取: "},
                          {GraphMeasure::load, 2, "load", "Busy Time: ", "繁忙时间: "},
                          {GraphMeasure::throughput, 0, "throughput", "Read: ", "读取: "}};
    for (const std::string lang : {"en", "zh"}) {
        const ScopedLanguage language(lang == "en" ? "en_US.UTF-8" : "zh_CN.UTF-8");
        Graph graph;
        graph.section.setQueue(BlockQueue{256, 4, false});
        graph.append(200);
        graph.section.setScale(1.5);
        const auto slots = graph.canvas->frame().slots;
        const QPointF pointer = graph.graphPoint(slots.x(100) + slots.spacing * 0.3, 60);
        for (const Case& c : cases) {
            SCOPED_TRACE(lang + " " + c.name);
            auto* picker = graph.section.measureSwitch();
            QTest::mouseClick(picker, Qt::LeftButton, {}, picker->segmentRect(c.segment).center());
            graph.settle();
            graph.mouse(QEvent::MouseMove, pointer, Qt::NoButton, Qt::NoButton);
            EXPECT_EQ(graph.canvas->measure(), c.measure);
            EXPECT_EQ(graph.canvas->frame().slots.shift, slots.shift);
            ASSERT_TRUE(graph.canvas->hoveredSample());
            EXPECT_EQ(graph.canvas->hoveredSample()->index, 100);
            const std::string& first = lang == "en" ? c.english : c.chinese;
            EXPECT_EQ(graph.canvas->tooltipLines()->secondary.find(first), 0u);
            EXPECT_TRUE(graph.section.legendText().startsWith(QString::fromStdString(first).chopped(2)));
            const std::string name = "graph-" + c.name + "-" + lang;
            save(graph.section, name + "-light");
            save(graph.section, name + "-light@2x", 2);
            const ScopedScheme dark(true);
            QCoreApplication::processEvents();
            save(graph.section, name + "-dark");
        }
    }
}

QColor colourOf(const QWidget& parent, const QString& text) {
    for (auto* label : parent.findChildren<QLabel*>()) {
        if (label->text() == text) return label->palette().color(QPalette::WindowText);
    }
    return {};
}

// An NVMe drive that can use PCIe 3.0 x4, running at `width` lanes.
DiskVolumeDescriptor nvmeVolume(unsigned width) {
    DiskVolumeDescriptor volume;
    volume.displayName = "Samsung SSD 970";
    volume.deviceName = "nvme0n1p2";
    volume.connectionTypeDescription = "PCI-Express";
    volume.connectionSpeedDescription = "8.0 GT/s PCIe x" + std::to_string(width);
    volume.fileSystemDescription = "EXT4";
    volume.totalCapacityBytes = 1'000'204'886'016;
    volume.availableCapacityBytes = 612'000'000'000;
    volume.hardwareVendor = "0x144D";
    volume.hardwareModel = "Samsung SSD 970 EVO Plus 1TB";
    volume.link = LinkCeiling{PcieLink{8'000'000'000, width, 8'000'000'000, 4}};
    return volume;
}

// The panel for `volume` with `result` as the last test's.
void show(VolumeControlPanel& panel, const DiskVolumeDescriptor& volume, const PerformanceResult& result) {
    DiskIOMonitor::State monitor;
    monitor.selectedVolume = volume;
    DiskPerformanceTester::State tester;
    tester.lastResult = result;
    tester.testMode = result.mode;
    panel.setContent(dashboard::volumePanelContent(monitor, tester, {"", std::nullopt, true, std::nullopt}));
}

// A drive held back by its link, after a queue-depth test: the ceiling and an orange warning among
// the facts, and the mode, the profiles and the share of the ceiling in the strip.
TEST(VolumeControlPanel, ShowsTheLinkCeilingWhileTheVolumeHasOneAndAQueueDepthResultInTheStrip) {
    for (const auto& [lang, dark] :
         {std::pair{"en_US.UTF-8", false}, {"en_US.UTF-8", true}, {"zh_CN.UTF-8", false}, {"zh_CN.UTF-8", true}}) {
        const ScopedLanguage language(lang);
        const ScopedScheme scheme(dark);
        DiskVolumeDescriptor volume = nvmeVolume(1);
        PerformanceResult result;
        result.mode = TestMode{TestKind::queueDepth, true, 5};
        result.actualByteCount = 1'073'741'824;
        result.queueDepthFigures = {{"SEQ1M Q8T1", 842'000'000, 803, 781'000'000, 745},
                                    {"SEQ1M Q1T1", 640'000'000, 610, 602'000'000, 574},
                                    {"RND4K Q32T1", 512'000'000, 125'000, 480'000'000, 117'187},
                                    {"RND4K Q1T1", 61'000'000, 14'892, 198'000'000, 48'339}};
        result.writeThroughput = 781'000'000;
        result.readThroughput = 842'000'000;
        VolumeControlPanel panel;
        panel.resize(380, 900);
        show(panel, volume, result);
        const QStringList texts = panel.infoTexts();
        const QString ceiling = QString::fromStdString(*linkCeilingText(*volume.link));
        const QString warning = QString::fromStdString(*slowLinkWarning(*volume.link));
        const QColor orange = accentColor(dashboard::AccentColor::orange);
        EXPECT_EQ(texts.size(), 7);
        EXPECT_EQ(texts.indexOf(ceiling), 2);
        EXPECT_EQ(texts.indexOf(warning), 3);
        EXPECT_EQ(colourOf(panel, warning), orange);
        EXPECT_NE(colourOf(panel, ceiling), orange);
        const QString items = panel.strip()->itemTexts().join('\n');
        EXPECT_TRUE(items.contains(QString::fromStdString(modeDescription(result.mode))));
        EXPECT_TRUE(items.contains(QStringLiteral("RND4K Q32T1")));
        EXPECT_TRUE(items.contains(QString::fromStdString(*ceilingShareText(842'000'000, *volume.link))));
        save(panel, "volume-panel-" + std::string(lang).substr(0, 2) + (dark ? "-dark" : "-light"));

        // Another volume without link figures: the two lines go, and the facts after them move up
        // into their rows in the ordinary colour.
        volume.link.reset();
        show(panel, volume, result);
        EXPECT_EQ(panel.infoTexts().size(), 5);
        EXPECT_EQ(panel.infoTexts().indexOf(warning), -1);
        EXPECT_NE(colourOf(panel, panel.infoTexts()[3]), orange);
    }
}

// A sustained write that fell from 1.2 GB/s to 420 MB/s after 12 GB while the drive warmed: the
// strip shows the cliff, the speeds around it and the steady speed, and no read or IOPS figure;
// the report's chart (pictured here) is valid SVG.
TEST(VolumeControlPanel, ShowsTheSustainedWriteCliffAndSteadySpeedInTheStrip) {
    std::vector<SustainedPoint> points;
    double seconds = 0;
    for (std::uint64_t bytes = kSustainedStepBytes; bytes < 30'000'000'000; bytes += kSustainedStepBytes) {
        const double speed = bytes <= 12'000'000'000 ? 1.2e9 : 4.2e8;
        seconds += static_cast<double>(kSustainedStepBytes) / speed;
        points.push_back({bytes, seconds, speed, 38 + std::min(seconds, 40.0) / 2});
    }
    for (const auto& [lang, dark] :
         {std::pair{"en_US.UTF-8", false}, {"en_US.UTF-8", true}, {"zh_CN.UTF-8", false}, {"zh_CN.UTF-8", true}}) {
        const ScopedLanguage language(lang);
        const ScopedScheme scheme(dark);
        PerformanceResult result;
        result.mode = TestMode{TestKind::sustainedWrite, true, 5};
        result.sustained = sustainedWriteFigures(points, points.back().bytesWritten, seconds, true);
        result.actualByteCount = result.sustained->bytesWritten;
        result.writeThroughput = result.sustained->averageBytesPerSecond;
        // Against yesterday's run: the average fell by a fifth (a drop), the steady speed held.
        const double average = result.sustained->averageBytesPerSecond;
        const double steady = result.sustained->steadyBytesPerSecond;
        result.comparison = ResultComparison{std::chrono::system_clock::now() - std::chrono::hours(24),
                                             {{"averageWriteThroughput", average / 0.8, average, -20, true},
                                              {"steadyWriteThroughput", steady / 1.02, steady, 2, false}}};
        VolumeControlPanel panel;
        panel.resize(380, 900);
        show(panel, nvmeVolume(4), result);
        const QString items = panel.strip()->itemTexts().join('\n');
        EXPECT_TRUE(items.contains(QString::fromUtf8("\u221220%")) && items.contains("+2%")) << items.toStdString();
        EXPECT_EQ(panel.strip()->warningText().toStdString(),
                  vantorix::dropWarning(result.comparison->changes[0], result.comparison->previousFinishedAt));
        const auto& cliff = *result.sustained->cliff;
        for (const std::string& expected :
             {PerformanceMetrics::sizeText(cliff.bytes), PerformanceMetrics::speedText(cliff.speedAfter),
              PerformanceMetrics::speedText(result.sustained->steadyBytesPerSecond)}) {
            EXPECT_TRUE(items.contains(QString::fromStdString(expected))) << expected << items.toStdString();
        }
        EXPECT_FALSE(items.contains("IOPS") || items.contains("Read") || items.contains(QString("读取")));
        const std::string suffix = std::string(lang).substr(0, 2) + (dark ? "-dark" : "-light");
        save(panel, "volume-panel-sustained-" + suffix);
        if (dark) continue;  // the report has one scheme
        QSvgRenderer chart(QByteArray::fromStdString(report::sustainedChartSVG(*result.sustained)));
        ASSERT_TRUE(chart.isValid());
        QImage image(1200, 500, QImage::Format_ARGB32_Premultiplied);
        image.fill(QColor("#0f172a"));
        QPainter painter(&image);
        chart.render(&painter);
        painter.end();
        image.save(QString::fromStdString(std::string(VANTORIX_SCREENSHOT_DIR "/sustained-chart-") + suffix + ".png"));
    }
}

// The SMART sheet with a recorder on a file that holds three days of a SATA drive: the temperature
// moves, the reallocated sectors go from 0 to 8, and the evening of the first day was not watched.
TEST(SmartInfoSheet, HistoryShowsEachFigureTheDriveReportsAndItsGrowth) {
    const testing::TemporaryFolder folder;
    const std::string path = folder.string() + "/health.sqlite";
    const health::DriveIdentity drive{"0x5002538e40a22954", "Samsung SSD 860 EVO 500GB", "S3Z2NB0K123456X", "sda", {}};
    const std::int64_t now = std::time(nullptr) / 3600 * 3600;
    {
        auto history = health::HealthHistory::open(path);
        ASSERT_TRUE(history);
        for (std::int64_t hour = 72; hour >= 0; --hour) {
            if (hour > 50 && hour < 60) continue;
            health::HealthSnapshot reading;
            reading.at = now - hour * 3600;
            reading[health::Figure::temperature] = std::round(38 + 5 * std::sin(static_cast<double>(hour) / 4));
            reading[health::Figure::reallocatedSectors] = hour > 30 ? 0 : 8;
            reading[health::Figure::pendingSectors] = 0;
            reading[health::Figure::crcErrors] = 0;
            ASSERT_TRUE((*history)->record(drive, reading));
        }
    }
    const auto recorder = std::make_shared<health::HealthRecorder>(path, std::make_shared<QtMainExecutor>());
    const dashboard::SmartSheetPayload payload{Uuid::make(), "Data", DiskSMARTInfo{"PASSED", true, {}, std::nullopt}};
    for (const auto& [lang, dark] :
         {std::pair{"en_US.UTF-8", false}, {"en_US.UTF-8", true}, {"zh_CN.UTF-8", false}, {"zh_CN.UTF-8", true}}) {
        const ScopedLanguage language(lang);
        const ScopedScheme scheme(dark);
        const bool english = std::string(lang) == "en_US.UTF-8";
        SmartInfoSheet sheet(payload, nullptr, {recorder, "sda"});
        QSignalSpy shown(&sheet, &SmartInfoSheet::historyShown);
        sheet.show();
        if (english && !dark) save(sheet, "smart-history-now-en-light");
        sheet.viewSwitch()->setCurrentIndex(1);
        ASSERT_TRUE(shown.wait(10'000));
        HealthHistoryCanvas& canvas = *sheet.historyCanvas();
        ASSERT_TRUE(canvas.isVisible());
        QStringList titles;
        for (const auto& panel : canvas.chart().panels) titles << qText(panel.title);
        EXPECT_EQ(titles.join('|'), english ? "Temperature|Reallocated sectors|Pending sectors|CRC errors"
                                            : "温度|重新分配扇区|待映射扇区|CRC 错误");
        EXPECT_TRUE(sheet.historyGrowth()->text().startsWith(english ? "Reallocated sectors grew by 8 since"
                                                                     : "重新分配扇区自"));
        // The pointer over the newest readings: the marker and bubble show the last one.
        const QPointF at = canvas.chartOrigin() + QPointF(canvas.chart().readingX.back() - 2, 60);
        QMouseEvent move(QEvent::MouseMove, at, canvas.mapToGlobal(at), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
        QApplication::sendEvent(&canvas, &move);
        EXPECT_EQ(canvas.hoveredReading(), canvas.chart().readingX.size() - 1);
        const std::string name = std::string("smart-history-") + (english ? "en" : "zh") + (dark ? "-dark" : "-light");
        QCoreApplication::sendPostedEvents();  // the labels' new heights
        save(sheet, name);
        if (!dark) save(sheet, name + "@2x", 2);
    }
    // A drive the file does not know: the sheet says there is no history yet.
    SmartInfoSheet sheet(payload, nullptr, {recorder, "sdz"});
    QSignalSpy shown(&sheet, &SmartInfoSheet::historyShown);
    ASSERT_TRUE(shown.wait(10'000));
    EXPECT_EQ(sheet.historyState()->text(), qText(dashboard::smartHistoryMissingNote(std::nullopt)));
    EXPECT_FALSE(sheet.historyCanvas()->isVisibleTo(&sheet));
    sheet.viewSwitch()->setCurrentIndex(1);
    save(sheet, "smart-history-none-en-light");
}

}  // namespace
}  // namespace vantorix::ui
