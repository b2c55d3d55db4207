// The live monitor at its finest precision (1 ms) with a full 60000-sample history:
//
//  * BM_SamplingTick / BM_SamplingTickPaced: what the monitor queue does per tick on this machine's
//    real sysfs counters (session snapshot, the four wrapped deltas, a DiskSample with a fresh
//    UUID and the wall-clock time, enqueue onto a running coordinator whose handler drops the
//    batches). The paced variant runs one tick per millisecond, so that, like in production, each
//    tick starts from a sleeping thread and its enqueue has to wake an idle coordinator queue.
//  * BM_ApplyBatchFullHistory: the main thread's work per delivered batch (17 samples, one
//    16.67 ms delivery period at 1 ms) on a monitor whose history is already full, with a
//    subscriber that reads the history like a view does; BM_NaiveHistoryCopy is the cost of
//    copying that history into a vector, which a list-based history would pay per batch.
//  * BM_TickIntervalsAt1ms: runs the real monitor at 1 ms on the disk behind a mount point for
//    VANTORIX_BENCH_SECONDS (default 20) and reports the distribution of the intervals between
//    the timestamps of the delivered samples, plus what the sampling thread went through
//    (scheduler wait, preemptions, CPU per tick, its nice value and timer slack).
//    BM_BareTimerfdIntervalsAt1ms measures the same on a bare 1 ms timerfd thread: the precision
//    the machine itself offers, to tell the monitor's own share of the jitter from the system's.
//
// VANTORIX_BENCH_DEVICE names the block device (default: the first of vda, nvme0n1, sda, loop0
// with a stat file); VANTORIX_BENCH_MOUNT overrides the mount point the run selects;
// VANTORIX_BENCH_DUMP receives the raw intervals of the timed run.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "concurrency/ThreadAttributes.h"
#include "monitor/AggregationCoordinator.h"
#include "monitor/DiskIOMonitor.h"
#include "monitor/DiskSample.h"
#include "monitor/StatisticsSession.h"
#include "platform/linux/LinuxVolumeInfoSource.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "support/ManualMainExecutor.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using Precision = DiskIOMonitor::SamplingPrecision;

std::string benchDevice() {
    if (const char* name = std::getenv("VANTORIX_BENCH_DEVICE")) return name;
    for (const char* candidate : {"vda", "nvme0n1", "sda", "loop0"}) {
        if (std::filesystem::exists(std::string("/sys/class/block/") + candidate + "/stat")) return candidate;
    }
    return "loop0";
}

// Where /dev/<device> is mounted (the shortest such mount point), or nothing.
std::optional<std::string> mountPointOf(const std::string& device) {
    if (const char* mount = std::getenv("VANTORIX_BENCH_MOUNT")) return std::string(mount);
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    std::optional<std::string> best;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string source, target;
        fields >> source >> target;
        if (source != "/dev/" + device) continue;
        if (!best || target.size() < best->size()) best = target;
    }
    return best;
}

// The descriptor the monitor would get for the device: resolved from its mount point when it has
// one, otherwise just the device name (which is all the statistics session reads by).
DiskVolumeDescriptor benchDescriptor(BlockDevices& devices) {
    const std::string device = benchDevice();
    if (const auto mount = mountPointOf(device)) {
        LinuxVolumeInfoSource files;
        auto resolved = DiskVolumeResolver::resolve(*mount, files, devices);
        if (resolved.ok() && resolved.value().deviceName == device) return resolved.value();
    }
    DiskVolumeDescriptor descriptor;
    descriptor.deviceName = device;
    return descriptor;
}

double percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    const double rank = p / 100.0 * static_cast<double>(sorted.size() - 1);
    const auto low = static_cast<std::size_t>(std::floor(rank));
    const auto high = static_cast<std::size_t>(std::ceil(rank));
    const double fraction = rank - static_cast<double>(low);
    return sorted[low] + (sorted[high] - sorted[low]) * fraction;
}

// ---------------------------------------------------------------------------------------------
// One sampling tick, as DiskIOMonitor::tick() and process() do it on the monitor queue (both are
// private, so the same calls are made here in the same order).

struct TickBench {
    std::shared_ptr<SysfsBlockDevices> devices = std::make_shared<SysfsBlockDevices>();
    std::unique_ptr<StatisticsSession> session;
    std::optional<BlockStatistics> previous;
    std::chrono::steady_clock::time_point previousAt = std::chrono::steady_clock::now();
    std::shared_ptr<AggregationCoordinator> coordinator;
    std::string error;

    TickBench() {
        auto created = StatisticsSession::create(devices, benchDescriptor(*devices).deviceName);
        if (!created.ok()) {
            error = created.error().description();
            return;
        }
        session = std::move(created.value());
        auto first = session->snapshot();
        if (!first.ok()) {
            error = first.error().description();
            return;
        }
        previous = first.value();
        coordinator = AggregationCoordinator::create(DiskIOMonitor::aggregationInterval,
                                                     DiskIOMonitor::aggregationLeeway,
                                                     [](AggregationCoordinator::Payload) {});
        coordinator->reset();
        coordinator->start();
    }
    ~TickBench() {
        if (coordinator) coordinator->stop(false);
        if (session) session->end();
    }

    // `sampled`, when given, receives the moment the sample was ready, just before the enqueue.
    bool tick(std::chrono::steady_clock::time_point* sampled = nullptr) {
        auto snapshot = session->snapshot();
        if (!snapshot.ok()) return false;
        const auto& current = snapshot.value();
        const auto now = std::chrono::system_clock::now();
        const auto steadyNow = std::chrono::steady_clock::now();
        DiskSample sample{Uuid::make(),
                          now,
                          current.bytesRead() - previous->bytesRead(),
                          current.bytesWritten() - previous->bytesWritten(),
                          current.readsCompleted - previous->readsCompleted,
                          current.writesCompleted - previous->writesCompleted,
                          loadDifference(*previous, current, steadyNow - previousAt)};
        previous = current;
        previousAt = steadyNow;
        const auto readBytes = sample.readBytes;
        const auto writeBytes = sample.writeBytes;
        if (sampled) *sampled = std::chrono::steady_clock::now();
        coordinator->enqueue(std::move(sample), readBytes, writeBytes);
        return true;
    }
};

// Back to back: the tick's own cost with warm caches. The coordinator's thread keeps up on the
// other core and is rarely idle, so most enqueues need no wake-up.
void BM_SamplingTick(benchmark::State& state) {
    TickBench bench;
    if (!bench.error.empty()) {
        state.SkipWithError(bench.error.c_str());
        return;
    }
    for (auto _ : state) {
        if (!bench.tick()) {
            state.SkipWithError("snapshot failed");
            return;
        }
    }
    // Let the coordinator catch up before the next repetition.
    bench.coordinator->flush();
}
BENCHMARK(BM_SamplingTick)->Unit(benchmark::kMicrosecond)->Repetitions(10)->ReportAggregatesOnly(true);

// One tick per millisecond, each timed on its own: a tick as the monitor queue runs it, from a
// thread that has just woken, enqueueing onto an idle coordinator. Reports the mean per
// repetition plus the median and 99th percentile of the single ticks, and the medians of their
// two halves.
void BM_SamplingTickPaced(benchmark::State& state) {
    TickBench bench;
    if (!bench.error.empty()) {
        state.SkipWithError(bench.error.c_str());
        return;
    }
    std::vector<double> ticks, reads, enqueues;
    ticks.reserve(static_cast<std::size_t>(state.max_iterations));
    reads.reserve(ticks.capacity());
    enqueues.reserve(ticks.capacity());
    auto deadline = std::chrono::steady_clock::now();
    for (auto _ : state) {
        deadline += 1ms;
        std::this_thread::sleep_until(deadline);
        const auto start = std::chrono::steady_clock::now();
        std::chrono::steady_clock::time_point sampled;
        const bool ok = bench.tick(&sampled);
        const auto end = std::chrono::steady_clock::now();
        if (!ok) {
            state.SkipWithError("snapshot failed");
            return;
        }
        const double seconds = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(seconds);
        ticks.push_back(seconds * 1e6);
        reads.push_back(std::chrono::duration<double, std::micro>(sampled - start).count());
        enqueues.push_back(std::chrono::duration<double, std::micro>(end - sampled).count());
    }
    for (auto* v : {&ticks, &reads, &enqueues}) std::sort(v->begin(), v->end());
    state.counters["tick_p50_us"] = percentile(ticks, 50);
    state.counters["tick_p99_us"] = percentile(ticks, 99);
    // The two halves: snapshot + sample, then the enqueue (which wakes the idle coordinator).
    state.counters["sample_p50_us"] = percentile(reads, 50);
    state.counters["enqueue_p50_us"] = percentile(enqueues, 50);
}
BENCHMARK(BM_SamplingTickPaced)
    ->Unit(benchmark::kMicrosecond)
    ->UseManualTime()
    ->Iterations(2000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// ---------------------------------------------------------------------------------------------
// The main thread's side of a delivery.

constexpr std::size_t kBatchSize = 17;  // 16.67 ms of samples at 1 ms

AggregationCoordinator::Payload makeBatch(std::uint64_t first) {
    AggregationCoordinator::Payload batch;
    for (std::uint64_t n = first; n < first + kBatchSize; ++n) {
        batch.samples.push_back(
            DiskSample{Uuid::make(), std::chrono::system_clock::now(), n * 4096, n * 512, n, n, {}});
        batch.readBytes += n * 4096;
        batch.writeBytes += n * 512;
    }
    batch.latestSample = batch.samples.back();
    return batch;
}

void BM_ApplyBatchFullHistory(benchmark::State& state) {
    auto main = std::make_shared<ManualMainExecutor>();
    auto monitor = DiskIOMonitor::create(
        {std::make_shared<SysfsBlockDevices>(), std::make_shared<LinuxVolumeInfoSource>(), main});
    std::size_t shown = 0;
    std::uint64_t newest = 0;
    auto subscription = monitor->subscribe([&](const DiskIOMonitor::State& s) {
        shown = s.samples.size();
        if (!s.samples.empty()) newest = s.samples.back().writeBytes;
    });
    // Fill the history and wrap it once more than needed, so evictions are in steady state.
    for (std::uint64_t n = 0; n < DiskIOMonitor::maximumSamples + 2 * 1024; n += kBatchSize) {
        monitor->applyBatch(makeBatch(n));
    }
    if (shown != DiskIOMonitor::maximumSamples) {
        state.SkipWithError("history did not fill up");
        return;
    }
    const AggregationCoordinator::Payload batch = makeBatch(1'000'000);
    for (auto _ : state) {
        monitor->applyBatch(batch);
        benchmark::DoNotOptimize(newest);
    }
    state.counters["history"] = static_cast<double>(shown);
    state.counters["batch"] = static_cast<double>(kBatchSize);
    main->drain();
}
BENCHMARK(BM_ApplyBatchFullHistory)->Unit(benchmark::kMicrosecond)->Repetitions(10)->ReportAggregatesOnly(true);

void BM_NaiveHistoryCopy(benchmark::State& state) {
    std::vector<DiskSample> history;
    history.reserve(DiskIOMonitor::maximumSamples);
    for (std::uint64_t n = 0; n < DiskIOMonitor::maximumSamples; ++n) {
        history.push_back(DiskSample{Uuid::make(), std::chrono::system_clock::now(), n, n, n, n, {}});
    }
    for (auto _ : state) {
        std::vector<DiskSample> copy = history;
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.counters["history"] = static_cast<double>(history.size());
}
BENCHMARK(BM_NaiveHistoryCopy)->Unit(benchmark::kMicrosecond)->Repetitions(10)->ReportAggregatesOnly(true);

// ---------------------------------------------------------------------------------------------
// Tick timing of the real monitor.

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::set<std::string> threadsNamed(const std::string& name) {
    std::set<std::string> tids;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task", ec)) {
        std::string comm = readFile(entry.path().string() + "/comm");
        while (!comm.empty() && comm.back() == '\n') comm.pop_back();
        if (comm == name) tids.insert(entry.path().filename().string());
    }
    return tids;
}

// What the scheduler says about one thread.
struct ThreadStats {
    double cpuNs = 0;        // time on a CPU
    double waitNs = 0;       // time runnable but waiting for a CPU
    double slices = 0;       // times it was scheduled in
    double involuntary = 0;  // times it was preempted
    double voluntary = 0;    // times it went to sleep
    double nice = 0;
    double timerSlackNs = -1;
};

ThreadStats threadStats(const std::string& tid) {
    ThreadStats stats;
    const std::string task = "/proc/self/task/" + tid;
    std::istringstream(readFile(task + "/schedstat")) >> stats.cpuNs >> stats.waitNs >> stats.slices;
    std::istringstream status(readFile(task + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) stats.voluntary = std::stod(line.substr(24));
        if (line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) stats.involuntary = std::stod(line.substr(27));
    }
    // Field 19 of stat is the nice value; the command name (field 2) may hold spaces, so count
    // from the closing parenthesis.
    const std::string stat = readFile(task + "/stat");
    if (const auto close = stat.rfind(')'); close != std::string::npos) {
        std::istringstream rest(stat.substr(close + 2));
        std::string field;
        for (int i = 3; i <= 19 && rest >> field; ++i) {
            if (i == 19) stats.nice = std::stod(field);
        }
    }
    const std::string slack = readFile("/proc/" + tid + "/timerslack_ns");
    if (!slack.empty()) stats.timerSlackNs = std::stod(slack);
    return stats;
}

// Sets the interval counters of a 1 ms run from the moments of its ticks, oldest first: the number
// of ticks, the time they span, min / p1 / median / p99 / p99.9 / max of the intervals between
// consecutive ticks, the share of intervals within 0.5 ms of 1 ms and the number over 1.5 ms. When
// the environment variable `dumpVariable` names a file, every interval (ms) goes there, one per
// line. False (and the benchmark skipped) when there are fewer than two ticks.
bool reportIntervals(benchmark::State& state, const std::vector<std::chrono::system_clock::time_point>& ticks,
                     const char* dumpVariable) {
    if (ticks.size() < 2) {
        state.SkipWithError("fewer than two ticks");
        return false;
    }
    std::vector<double> intervals;
    intervals.reserve(ticks.size() - 1);
    for (std::size_t i = 1; i < ticks.size(); ++i) {
        intervals.push_back(std::chrono::duration<double, std::milli>(ticks[i] - ticks[i - 1]).count());
    }
    std::size_t within = 0, late = 0;
    for (const double ms : intervals) {
        if (std::abs(ms - 1.0) <= 0.5) ++within;
        if (ms > 1.5) ++late;
    }
    if (const char* dump = std::getenv(dumpVariable)) {
        std::ofstream out(dump);
        for (const double ms : intervals) out << ms << '\n';
    }
    std::vector<double> sorted = intervals;
    std::sort(sorted.begin(), sorted.end());

    state.counters["samples"] = static_cast<double>(ticks.size());
    state.counters["span_ms"] = std::chrono::duration<double, std::milli>(ticks.back() - ticks.front()).count();
    state.counters["min_ms"] = sorted.front();
    state.counters["p1_ms"] = percentile(sorted, 1);
    state.counters["median_ms"] = percentile(sorted, 50);
    state.counters["p99_ms"] = percentile(sorted, 99);
    state.counters["p99.9_ms"] = percentile(sorted, 99.9);
    state.counters["max_ms"] = sorted.back();
    state.counters["within_0.5ms"] = static_cast<double>(within) / static_cast<double>(intervals.size());
    state.counters["over_1.5ms"] = static_cast<double>(late);
    return true;
}

double benchSeconds() {
    double seconds = 20;
    if (const char* text = std::getenv("VANTORIX_BENCH_SECONDS")) seconds = std::max(1.0, std::atof(text));
    return seconds;
}

void BM_TickIntervalsAt1ms(benchmark::State& state) {
    const std::string device = benchDevice();
    const auto mount = mountPointOf(device);
    if (!mount) {
        state.SkipWithError(("/dev/" + device + " is not mounted; set VANTORIX_BENCH_MOUNT").c_str());
        return;
    }
    const double seconds = benchSeconds();

    for (auto _ : state) {
        const auto queuesBefore = threadsNamed("queue");
        auto main = std::make_shared<ManualMainExecutor>();
        auto monitor = DiskIOMonitor::create(
            {std::make_shared<SysfsBlockDevices>(), std::make_shared<LinuxVolumeInfoSource>(), main});
        monitor->setSamplingPrecision(Precision::ms1);
        monitor->selectVolume(*mount);
        main->runUntil([&] { return monitor->state().selectedVolume || monitor->state().errorMessage; }, 10s);
        if (!monitor->state().selectedVolume) {
            state.SkipWithError(
                ("cannot select " + *mount + ": " + monitor->state().errorMessage.value_or("timeout")).c_str());
            return;
        }
        monitor->startMonitoring();
        main->runUntil([&] { return monitor->state().isMonitoring && !monitor->state().samples.empty(); }, 10s);

        // The monitor queue's thread has named itself by now: it has done the first reading.
        std::string queueTid;
        for (const auto& tid : threadsNamed("queue")) {
            if (!queuesBefore.contains(tid)) queueTid = tid;
        }
        const ThreadStats before = queueTid.empty() ? ThreadStats{} : threadStats(queueTid);
        const std::size_t samplesBefore = monitor->state().samples.size();
        // The main thread is this one: it applies the deliveries as they come.
        main->runUntil([] { return false; },
                       std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)));
        const ThreadStats during = queueTid.empty() ? ThreadStats{} : threadStats(queueTid);
        const std::size_t samplesDuring = monitor->state().samples.size() - samplesBefore;

        monitor->stopMonitoring(true);
        main->runUntil([&] { return !monitor->state().isMonitoring; }, 10s);
        main->drain();

        const auto& samples = monitor->state().samples;
        std::vector<std::chrono::system_clock::time_point> stamps;
        stamps.reserve(samples.size());
        for (const auto& sample : samples) stamps.push_back(sample.timestamp);
        if (!reportIntervals(state, stamps, "VANTORIX_BENCH_DUMP")) return;
        if (!queueTid.empty() && samplesDuring > 0) {
            const double ticks = static_cast<double>(samplesDuring);
            state.counters["q_nice"] = during.nice;
            state.counters["q_slack_us"] = during.timerSlackNs / 1000.0;
            state.counters["q_cpu_us_per_tick"] = (during.cpuNs - before.cpuNs) / 1000.0 / ticks;
            state.counters["q_runq_wait_us_per_tick"] = (during.waitNs - before.waitNs) / 1000.0 / ticks;
            state.counters["q_preempted"] = during.involuntary - before.involuntary;
            state.counters["q_wakeups_per_tick"] = (during.voluntary - before.voluntary) / ticks;
        }
    }
}
BENCHMARK(BM_TickIntervalsAt1ms)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// The floor this machine sets: a bare thread at the monitor queue's nice value that waits on a
// periodic 1 ms timerfd with blocking reads and notes the wall-clock time after each expiry, with
// none of the queue, timer or monitor machinery in between. Same counters as above; the raw
// intervals go to VANTORIX_BENCH_BASELINE_DUMP.
void BM_BareTimerfdIntervalsAt1ms(benchmark::State& state) {
    const double seconds = benchSeconds();
    for (auto _ : state) {
        const auto count = static_cast<std::size_t>(seconds * 1000.0);
        std::vector<std::chrono::system_clock::time_point> ticks;
        ticks.reserve(count);
        std::string failure;
        std::thread sampler([&] {
            ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), niceValue(QualityOfService::userInteractive));
            const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
            if (fd < 0) {
                failure = "timerfd_create failed";
                return;
            }
            itimerspec period{};
            period.it_interval.tv_nsec = 1'000'000;
            period.it_value.tv_nsec = 1'000'000;
            if (::timerfd_settime(fd, 0, &period, nullptr) != 0) {
                failure = "timerfd_settime failed";
                ::close(fd);
                return;
            }
            while (ticks.size() < count) {
                std::uint64_t expirations = 0;
                if (::read(fd, &expirations, sizeof expirations) != static_cast<ssize_t>(sizeof expirations)) {
                    failure = "read from timerfd failed";
                    break;
                }
                ticks.push_back(std::chrono::system_clock::now());
            }
            ::close(fd);
        });
        sampler.join();
        if (!failure.empty()) {
            state.SkipWithError(failure.c_str());
            return;
        }
        if (!reportIntervals(state, ticks, "VANTORIX_BENCH_BASELINE_DUMP")) return;
    }
}
BENCHMARK(BM_BareTimerfdIntervalsAt1ms)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
}  // namespace vantorix
