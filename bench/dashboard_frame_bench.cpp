// The main-thread time of one frame of the desktop dashboard while it monitors at 1 ms with a full
// history of 60,000 samples. One frame is what the main thread does for one delivered batch:
//   batch apply    DiskIOMonitor::applyBatch appends the batch to the history and updates the state
//   dashboard      the window's reaction to the new state: the graph takes the newest samples, and the
//                  panel, the metric cards and the bubbles are recomputed and set
//   graph install  the graph's results arriving on the main thread: the downsampled points, then the
//                  plot picture (both are computed on queues of their own, which is not counted)
//   relayout       the posted layout requests (from texts that changed)
//   paint          the window's posted update request, delivered at once: Qt repaints what the frame
//                  changed (the graph, changed texts)
// Samples redraw the graph at most once a DiskIOGraphCanvas::kSampleRedrawPeriod, so in the program
// one batch in three draws it; here every batch waits out that period first (untimed), so that every
// frame measured is one that draws the graph. The frame total adds these up. "graph layout" is GraphGeometry's frame
// for the graph, timed on its own and not added: the plot request (in graph install) and the paint compute it too.
// "graph ready" is the wall time from the batch to the plot's arrival, most of it spent off the main thread.
//
// The real DashboardRootView shows a real DiskIOMonitor in a 1240 × 800 window (its layout makes it
// taller). The monitor's volume is a made-up block device; batches of 17 synthetic samples
// (one 16.7 ms delivery at 1 ms) go to applyBatch, where the monitor's own deliveries land.
//
// Run:
//   ninja -C build/release vantorix_dashboard_frame_bench
//   QT_QPA_PLATFORM=offscreen build/release/bench/vantorix_dashboard_frame_bench [--frames N] [--hover]
//       [--view latency|load]
// --hover keeps the pointer over the graph, so every frame also draws the marker and the tooltip;
// --view shows the graph's latency or load view instead of its throughput;
// QT_SCALE_FACTOR=2 measures a high-density screen.
#include <QApplication>
#include <QMainWindow>
#include <QMouseEvent>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "benchmark/DiskPerformanceTester.h"
#include "monitor/DiskIOMonitor.h"
#include "platform/linux/PosixFileSystem.h"
#include "support/ManualMainExecutor.h"
#include "support/ScriptedBlockDevices.h"
#include "ui/DashboardRootView.h"
#include "ui/DiskIOChartSection.h"
#include "ui/DiskIOGraphCanvas.h"
#include "ui/QtMainExecutor.h"

namespace vantorix {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration<double, std::milli>(end - start).count();
}

// The dashboard's main thread, with the time spent running posted work added up, and a way to
// wait for work to be posted without running the event loop (which would paint).
class TimedMainExecutor final : public MainExecutor {
public:
    void post(std::function<void()> work) override {
        if (!work) return;
        inner_.post([this, work = std::move(work)] {
            const auto start = Clock::now();
            work();
            spentMs_ += millisecondsSince(start, Clock::now());
        });
        const std::lock_guard lock(mutex_);
        ++posted_;
        wake_.notify_all();
    }
    bool isMainThread() const override { return inner_.isMainThread(); }
    double takeSpentMs() { return std::exchange(spentMs_, 0.0); }

    // Runs the posted work (and only that) until `done()` holds, sleeping while none is posted.
    bool runPostedUntil(const std::function<bool()>& done) {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (!done()) {
            std::unique_lock lock(mutex_);
            if (!wake_.wait_until(lock, deadline, [&] { return posted_ != ran_; })) return false;
            ran_ = posted_;
            lock.unlock();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);
        }
        return true;
    }

private:
    ui::QtMainExecutor inner_;
    double spentMs_ = 0;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::uint64_t posted_ = 0;
    std::uint64_t ran_ = 0;
};

// Every path is a folder on /dev/bench0, an ext4 volume of 1 TB with 400 GB free.
class BenchVolume final : public VolumeInfoSource {
public:
    std::optional<std::string> resolveSymlinks(const std::string& path) override { return path; }
    Result<FileSystemStatistics, int> fileSystemStatistics(const std::string&) override {
        return FileSystemStatistics{"/dev/bench0", "ext4", "/", 4096, 244'140'625, 97'656'250};
    }
    Result<VolumeResourceValues, int> resourceValues(const std::string&) override {
        return VolumeResourceValues{"Bench", 1'000'000'000'000, 400'000'000'000};
    }
};

// Traffic like a busy disk at 1 ms: steady reads with noise and write bursts of a few hundred
// milliseconds now and then.
class Traffic {
public:
    DiskSample next() {
        const std::uint64_t noise = step() % 400'000;
        if (burstLeft_ == 0 && step() % 2000 == 0) burstLeft_ = 200 + step() % 800;
        const std::uint64_t write = burstLeft_ > 0 ? 2'000'000 + noise * 4 : noise / 8;
        burstLeft_ -= burstLeft_ > 0 ? 1 : 0;
        time_ += std::chrono::milliseconds(1);
        const std::uint64_t reads = 3 + noise % 5;
        const std::uint64_t writes = burstLeft_ > 0 ? 5 + noise % 3 : noise % 2;
        // Request times as a busy disk's: a millisecond counter that moves by 0 to 4 a sample.
        LoadCounters load{
            std::chrono::milliseconds(1), reads, writes, noise % 3, noise % 5, 1, 1 + noise % 6, 0, 0, noise % 4};
        return DiskSample{Uuid::make(), time_, 300'000 + noise, write, reads, writes, load};
    }

    // One delivery: `count` samples with their sums and the newest, as the coordinator makes it.
    AggregationCoordinator::Payload batch(std::size_t count) {
        AggregationCoordinator::Payload payload;
        payload.samples.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            payload.samples.push_back(next());
            payload.readBytes += payload.samples.back().readBytes;
            payload.writeBytes += payload.samples.back().writeBytes;
        }
        payload.latestSample = payload.samples.back();
        return payload;
    }

private:
    std::uint64_t step() {  // xorshift64
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }

    std::uint64_t state_ = 0x9E3779B97F4A7C15ULL;
    std::uint64_t burstLeft_ = 0;
    std::chrono::system_clock::time_point time_{std::chrono::milliseconds(1'740'816'930'125)};
};

// Counts the paint events of one widget.
struct PaintCounter : QObject {
    int paints = 0;
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::Paint) ++paints;
        return false;
    }
};

struct Figures {
    std::string name;
    std::vector<double> ms;

    double at(double fraction) const {
        std::vector<double> sorted = ms;
        std::sort(sorted.begin(), sorted.end());
        const auto index = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(sorted.size()))) - 1;
        return sorted[std::min(index, sorted.size() - 1)];
    }
    double mean() const {
        double sum = 0;
        for (const double value : ms) sum += value;
        return sum / static_cast<double>(ms.size());
    }
    void print() const {
        std::printf("  %-18s %8.3f %8.3f %8.3f %8.3f %8.3f\n", name.c_str(), at(0.5), at(0.9), at(0.99),
                    *std::max_element(ms.begin(), ms.end()), mean());
    }
};

struct Options {
    int frames = 600;
    int warmUp = 100;
    bool hover = false;
    GraphMeasure measure = GraphMeasure::throughput;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--frames") == 0 && i + 1 < argc) {
            options.frames = std::max(1, std::atoi(argv[++i]));
        } else if (std::strcmp(argv[i], "--hover") == 0) {
            options.hover = true;
        } else if (std::strcmp(argv[i], "--view") == 0 && i + 1 < argc && std::strcmp(argv[i + 1], "latency") == 0) {
            options.measure = GraphMeasure::latency;
            ++i;
        } else if (std::strcmp(argv[i], "--view") == 0 && i + 1 < argc && std::strcmp(argv[i + 1], "load") == 0) {
            options.measure = GraphMeasure::load;
            ++i;
        } else {
            std::fprintf(stderr, "usage: %s [--frames N] [--hover] [--view latency|load]\n", argv[0]);
            std::exit(2);
        }
    }
    return options;
}

int run(const Options& options) {
    constexpr std::size_t kBatch = 17;  // 16.7 ms of samples at 1 ms
    const auto precision = DiskIOMonitor::SamplingPrecision::ms1;

    // The monitor's own posts (selection, start) run when this program drains them; its sampler
    // is stopped once monitoring has begun, so that only the batches below reach the history.
    auto monitorMain = std::make_shared<ManualMainExecutor>();
    auto devices = std::make_shared<testing::ScriptedBlockDevices>();
    BlockAttachment attachment;
    attachment.bus = BusKind::pciExpress;
    attachment.vendor = "Bench";
    attachment.model = "Frame Disk 1TB";
    devices->add(
        "bench0", [] { return BlockStatistics{}; }, attachment);
    auto monitor = DiskIOMonitor::create({devices, std::make_shared<BenchVolume>(), monitorMain});
    auto dashboardMain = std::make_shared<TimedMainExecutor>();
    auto tester = DiskPerformanceTester::create({dashboardMain, std::make_shared<PosixFileSystem>()});

    // Subscribed before and after the dashboard, so that they mark where its reaction starts and ends.
    Clock::time_point applied, reacted;
    Subscription before = monitor->subscribe([&](const DiskIOMonitor::State&) { applied = Clock::now(); });

    QMainWindow window;
    ui::DashboardRootView::Dependencies dependencies;
    dependencies.monitor = monitor;
    dependencies.tester = tester;
    dependencies.mainExecutor = dashboardMain;
    auto* dashboard = new ui::DashboardRootView(std::move(dependencies));
    window.setCentralWidget(dashboard);
    window.resize(1240, 800);
    Subscription after = monitor->subscribe([&](const DiskIOMonitor::State&) { reacted = Clock::now(); });

    monitor->setSamplingPrecision(precision);
    monitor->selectVolume("/bench");
    const auto settled = [&](const std::function<bool()>& done) {
        return monitorMain->runUntil(done, std::chrono::seconds(10));
    };
    if (!settled([&] { return monitor->state().selectedVolume.has_value(); })) {
        std::fprintf(stderr, "the volume was not selected: %s\n", monitor->state().errorMessage.value_or("?").c_str());
        return 1;
    }
    DiskSMARTInfo smart;
    smart.overallStatus = "PASSED";
    smart.isCapable = true;
    smart.details.push_back(
        {Uuid::make(), "nvme_smart_health_information_log.temperature", "Controller Temperature", "41"});
    monitor->replaceSmartInfo(smart);
    monitor->startMonitoring();
    if (!settled([&] { return monitor->state().isMonitoring; })) {
        std::fprintf(stderr, "monitoring did not start\n");
        return 1;
    }
    monitor->stopMonitoring(false);  // stops the sampler; its state change stays queued and never runs

    dashboard->chart()->setMeasure(options.measure);
    window.show();
    auto* canvas = dashboard->chart()->canvas();
    PaintCounter canvasPaints;
    canvas->installEventFilter(&canvasPaints);
    QCoreApplication::processEvents();

    Traffic traffic;
    // Fills the history as a long run would have, then lets the window catch up.
    while (monitor->state().samples.size() < DiskIOMonitor::maximumSamples) monitor->applyBatch(traffic.batch(1000));
    for (int i = 0; i < 50 && canvas->hasPendingPoints(); ++i) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    QCoreApplication::processEvents();
    if (options.hover) {
        const QPointF at = canvas->graphRect().center();
        QMouseEvent move(QEvent::MouseMove, at, canvas->mapToGlobal(at), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
        QApplication::sendEvent(canvas, &move);
        QCoreApplication::processEvents();
        if (!canvas->hoveredSample()) {
            std::fprintf(stderr, "the pointer hovers no point\n");
            return 1;
        }
    }

    Figures apply{"batch apply", {}}, react{"dashboard", {}}, install{"graph install", {}};
    Figures geometry{"graph layout", {}}, relayout{"relayout", {}}, paint{"paint", {}}, total{"frame total", {}};
    Figures ready{"graph ready", {}};
    int paintsCounted = 0;
    const int frames = options.warmUp + options.frames;
    for (int frame = 0; frame < frames; ++frame) {
        std::this_thread::sleep_for(ui::DiskIOGraphCanvas::kSampleRedrawPeriod);
        auto batch = traffic.batch(kBatch);  // made on the coordinator's queue in the program
        canvasPaints.paints = 0;
        dashboardMain->takeSpentMs();

        const auto start = Clock::now();
        monitor->applyBatch(batch);
        const auto returned = Clock::now();
        // The reduction and the plot are drawn on queues of their own; only their results' arrival
        // is main-thread work.
        if (!dashboardMain->runPostedUntil([&] { return !canvas->hasPendingPoints(); })) {
            std::fprintf(stderr, "frame %d: the graph did not get its points\n", frame);
            return 1;
        }
        const auto installed = Clock::now();
        const double installMs = dashboardMain->takeSpentMs();
        const auto geometryStart = Clock::now();
        const auto shown = canvas->frame();
        const auto geometryEnd = Clock::now();
        if (shown.readLine.empty()) {
            std::fprintf(stderr, "frame %d: the graph draws no line\n", frame);
            return 1;
        }
        const auto relayoutStart = Clock::now();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
        const auto paintStart = Clock::now();
        QCoreApplication::sendPostedEvents();
        const auto paintEnd = Clock::now();

        if (frame < options.warmUp) continue;
        apply.ms.push_back(millisecondsSince(start, applied));
        react.ms.push_back(millisecondsSince(applied, reacted) + millisecondsSince(reacted, returned));
        install.ms.push_back(installMs);
        geometry.ms.push_back(millisecondsSince(geometryStart, geometryEnd));
        relayout.ms.push_back(millisecondsSince(relayoutStart, paintStart));
        paint.ms.push_back(millisecondsSince(paintStart, paintEnd));
        total.ms.push_back(apply.ms.back() + react.ms.back() + installMs + relayout.ms.back() + paint.ms.back());
        ready.ms.push_back(millisecondsSince(start, installed));
        paintsCounted += canvasPaints.paints;
    }

    const auto& state = monitor->state();
    std::printf(
        "Dashboard frame at 1 ms: %zu samples held, %zu per batch, %d frames after %d warm-up, "
        "window %dx%d%s, %s view\n",
        state.samples.size(), kBatch, options.frames, options.warmUp, window.width(), window.height(),
        options.hover ? ", pointer over the graph" : "",
        options.measure == GraphMeasure::latency ? "latency"
        : options.measure == GraphMeasure::load  ? "load"
                                                 : "throughput");
    std::printf("  %-18s %8s %8s %8s %8s %8s   (ms)\n", "", "median", "p90", "p99", "max", "mean");
    for (const Figures* figures : {&apply, &react, &install, &geometry, &relayout, &paint, &total}) figures->print();
    std::printf("  off the main thread, from the batch to the graph's picture being ready (wall time):\n");
    ready.print();
    std::printf("  graph paints per frame: %.2f\n", static_cast<double>(paintsCounted) / options.frames);
    const bool met = total.at(0.5) <= 2 && total.at(0.99) <= 8;
    std::printf("  targets (median <= 2 ms, p99 <= 8 ms): %s\n", met ? "met" : "missed");
    if (state.samples.size() != DiskIOMonitor::maximumSamples || paintsCounted < options.frames) {
        std::fprintf(stderr, "the frames did not run as intended (history %zu, graph paints %d)\n",
                     state.samples.size(), paintsCounted);
        return 1;
    }
    return 0;
}

}  // namespace
}  // namespace vantorix

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);  // takes Qt's own options out of argv
    return vantorix::run(vantorix::parse(argc, argv));
}
