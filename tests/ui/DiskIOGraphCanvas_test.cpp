#include "ui/DiskIOGraphCanvas.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QMouseEvent>
#include <QNativeGestureEvent>
#include <QPointingDevice>
#include <QSignalSpy>
#include <QTest>
#include <QWheelEvent>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "monitor/FixedRingBuffer.h"
#include "support/ScopedEnvironment.h"
#include "ui/DiskIOChartSection.h"
#include "ui/QtMainExecutor.h"

namespace vantorix::ui {
namespace {

using vantorix::testing::ScopedLanguage;

// Counts the paint events a widget receives.
struct PaintCounter : QObject {
    int paints = 0;
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::Paint) ++paints;
        return false;
    }
};

// Read and write bytes per second of sample i: a slow wave and bursts, so both lines show shape.
std::uint64_t readAt(std::size_t i) {
    return static_cast<std::uint64_t>(3.2e8 + 2.4e8 * std::sin(static_cast<double>(i) / 9));
}
std::uint64_t writeAt(std::size_t i) { return i % 23 < 4 ? 680'000'000 : 90'000'000 + 1'000'000 * (i % 7); }

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

    // An idle batch's samples carry no traffic.
    void append(std::size_t count, bool idle = false) {
        for (std::size_t n = history.count(), end = n + count; n < end; ++n)
            history.append(DiskSample{Uuid::make(), std::chrono::sys_seconds(std::chrono::seconds(1'740'816'930 + n)),
                                      idle ? 0 : readAt(n), idle ? 0 : writeAt(n), 1, 1});
        section.setSamples(history.elements(), 1000);
        settle();
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
    void gesture(Qt::NativeGestureType type, double value) {
        const QPointF at = graphPoint(100, 50);
        QNativeGestureEvent event(type, QPointingDevice::primaryPointingDevice(), 2, at, at, canvas->mapToGlobal(at),
                                  value, {});
        QApplication::sendEvent(canvas, &event);
    }
    void save(const QString& name, qreal ratio = 1) {
        QDir().mkpath(VANTORIX_SCREENSHOT_DIR);
        QImage image((QSizeF(section.size()) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
        image.setDevicePixelRatio(ratio);
        image.fill(Qt::transparent);
        section.render(&image);
        EXPECT_TRUE(image.save(QStringLiteral(VANTORIX_SCREENSHOT_DIR "/") + name));
    }
};

TEST(DiskIOGraphCanvas, PaintsNoneSomeAndAFullWindowOfSamples) {
    struct Case { std::size_t samples; std::size_t points; const char* screenshot; };
    const Case cases[] = {{0, 0, "graph-empty.png"}, {10, 10, "graph-10-samples.png"}, {300, 256, "graph-300-samples.png"}};
    const ScopedLanguage english("en_US.UTF-8");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.samples);
        Graph graph;
        graph.append(c.samples);
        const auto frame = graph.canvas->frame();
        EXPECT_EQ(frame.drawn.size(), c.points);
        EXPECT_EQ(frame.readLine.size(), c.points);
        EXPECT_EQ(frame.throughputTicks.size(), c.points > 0 ? 5u : 1u);
        graph.save(c.screenshot);
    }
}

TEST(DiskIOGraphCanvas, RepaintsAtMostOncePerBatchAndNotForBatchesThatChangeNothingShown) {
    Graph graph;
    graph.append(250);
    PaintCounter counter;
    graph.canvas->installEventFilter(&counter);
    constexpr int batches = 20;
    for (int i = 0; i < batches; ++i) graph.append(1);  // crosses the full window of 256
    EXPECT_GT(counter.paints, 0);
    EXPECT_LE(counter.paints, batches);
    EXPECT_EQ(graph.canvas->frame().drawn.back().readSpeed, static_cast<double>(readAt(269)));

    // Once the traffic has left the window, idle batches leave the flat lines where they are.
    graph.append(300, /*idle=*/true);
    counter.paints = 0;
    for (int i = 0; i < batches; ++i) graph.append(1, /*idle=*/true);
    EXPECT_EQ(counter.paints, 0);
    graph.append(1);  // traffic again
    EXPECT_EQ(counter.paints, 1);
}

// The limits of the zoom are GraphGeometry's; here, that the wheel and the pinch reach them.
TEST(DiskIOGraphCanvas, CtrlWheelAndNativePinchCommitAZoom) {
    struct Case { double scale; std::vector<int> angles; double expected; int signals; };
    // Small steps add up until the zoom changes by 1 %.
    const std::vector<Case> cases = {
        {1, {120}, 1.1, 1}, {390, {120}, 400, 1}, {1, {8}, 1, 0}, {1, {8, 8}, std::pow(1.1, 16.0 / 120), 1},
    };
    for (const Case& c : cases) {
        Graph graph;
        graph.append(40);
        graph.section.setScale(c.scale);
        QSignalSpy spy(&graph.section, &DiskIOChartSection::scaleChanged);
        for (const int angle : c.angles) graph.wheel(angle);
        EXPECT_DOUBLE_EQ(graph.section.scale(), c.expected) << c.scale;
        EXPECT_EQ(spy.count(), c.signals) << c.scale;
    }
    // The pinch magnifies while it runs and commits when it ends.
    Graph graph;
    graph.append(100);
    graph.section.setScale(300);
    QSignalSpy spy(&graph.section, &DiskIOChartSection::scaleChanged);
    graph.gesture(Qt::BeginNativeGesture, 0);
    graph.gesture(Qt::ZoomNativeGesture, 0.5);
    graph.gesture(Qt::ZoomNativeGesture, 0.5);
    EXPECT_DOUBLE_EQ(graph.canvas->magnifyBy(), 2);
    EXPECT_EQ(graph.section.scale(), 300);
    graph.gesture(Qt::EndNativeGesture, 0);
    EXPECT_EQ(graph.canvas->magnifyBy(), 1);
    EXPECT_DOUBLE_EQ(graph.section.scale(), 400);
    EXPECT_EQ(spy.count(), 1);
}

TEST(DiskIOGraphCanvas, DragCommitsAReachableOffset) {
    struct Case { const char* name; double scale; double dx; bool commits; };
    const Case cases[] = {
        {"scale 1: nothing moves", 1, -200, false},
        {"scale 2: left by 200", 2, -200, true},
        {"scale 2: far left is held at the newest sample", 2, -5000, true},
        {"under 10 px is no drag", 2, -8, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Graph graph;
        graph.append(256);
        graph.section.setScale(c.scale);
        QSignalSpy spy(&graph.section, &DiskIOChartSection::offsetChanged);
        const QPointF start = graph.graphPoint(400, 100);
        const QPointF end = start + QPointF(c.dx, 3);
        graph.mouse(QEvent::MouseButtonPress, start, Qt::LeftButton, Qt::LeftButton);
        graph.mouse(QEvent::MouseMove, end, Qt::NoButton, Qt::LeftButton);
        EXPECT_EQ(graph.canvas->dragTranslation(), std::abs(c.dx) >= 10 ? c.dx : 0);
        graph.mouse(QEvent::MouseButtonRelease, end, Qt::LeftButton, Qt::NoButton);
        EXPECT_EQ(graph.canvas->dragTranslation(), 0);
        EXPECT_EQ(spy.count(), c.commits ? 1 : 0);
        // The graph stays where the drag left it, and the offset reaches exactly that place.
        const double width = graph.canvas->graphRect().width();
        const double expectedShift = std::clamp(c.dx, width - width * c.scale, 0.0);
        const auto slots = graph.canvas->frame().slots;
        EXPECT_NEAR(slots.shift, std::abs(c.dx) >= 10 ? expectedShift : 0, 1e-9);
        EXPECT_DOUBLE_EQ(graph.section.offset(), slots.shift);
        if (c.dx == -200 && c.scale == 2) graph.save("graph-zoomed-shifted.png", 2);
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
        const QString name = QStringLiteral("graph-hover-") + QString::fromStdString(lang);
        graph.save(name + "-light.png");
        graph.save(name + "-light@2x.png", 2);
        QPalette dark(Qt::white, QColor(0x1e, 0x1e, 0x1e));  // window text, window
        dark.setColor(QPalette::Text, Qt::white);
        graph.section.setPalette(dark);
        graph.save(name + "-dark.png");

        QEvent leave(QEvent::Leave);
        QApplication::sendEvent(graph.canvas, &leave);
        EXPECT_FALSE(graph.canvas->hoveredSample());
        EXPECT_FALSE(graph.canvas->tooltipLines());
    }
}

}  // namespace
}  // namespace vantorix::ui
