#include <fmt/format.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "charts/ChartExportSupport.h"
#include "charts/LatencyExport.h"
#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/OptionChecks.h"
#include "cli/SignalWatcher.h"
#include "concurrency/LoopMainExecutor.h"
#include "concurrency/RepeatingTimer.h"
#include "concurrency/SerialQueue.h"
#include "monitor/DiskIOMonitor.h"
#include "monitor/LoadTexts.h"
#include "monitor/MonitorMetrics.h"
#include "render/ChartImageRenderer.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/TerminalText.h"
#include "volumes/MonitorError.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;

// What one line of output says: the dashboard's figures at one moment.
struct Figures {
    double duration = 0;
    MonitorMetrics::Rates speeds;
    MonitorMetrics::Rates rates;
    std::uint64_t totalReadBytes = 0;
    std::uint64_t totalWriteBytes = 0;
    std::size_t samples = 0;
    LoadFigures load;  // over the same newest second
};

Figures figuresOf(const DiskIOMonitor::State& state, double duration) {
    Figures f;
    f.duration = duration;
    f.speeds = MonitorMetrics::lastSecondSpeeds(state.samples, state.samplingPrecision);
    f.rates = MonitorMetrics::operationRates(state.samples, state.samplingPrecision);
    f.totalReadBytes = state.totalReadBytes;
    f.totalWriteBytes = state.totalWriteBytes;
    f.samples = state.samples.size();
    f.load = loadFigures(MonitorMetrics::lastSecondLoad(state.samples, state.samplingPrecision));
    return f;
}

// A figure that a span may lack: null in JSON.
ordered_json optionalNumber(std::optional<double> value) { return value ? ordered_json(*value) : ordered_json(); }

// The load figures' keys, in the lines and in the summary.
void addLoadFigures(ordered_json& object, const LoadFigures& load) {
    object["readAwaitMs"] = optionalNumber(load.readAwaitMilliseconds);
    object["writeAwaitMs"] = optionalNumber(load.writeAwaitMilliseconds);
    object["utilization"] = optionalNumber(load.utilization);
    object["averageQueueDepth"] = optionalNumber(load.averageQueueDepth);
    object["inFlight"] = load.inFlight;
    object["discardOperationsRate"] = load.discardsPerSecond;
    object["flushOperationsRate"] = load.flushesPerSecond;
}

std::string latencyColumns(const LoadFigures& load, const std::optional<BlockQueue>& queue) {
    const auto pair = [](const std::string& label, const std::string& value) { return label + " " + value; };
    return fmt::format(
        "  {}  {}  {}  {}  {}", pair(text::localized("读取延迟", "Read Await"), awaitText(load.readAwaitMilliseconds)),
        pair(text::localized("写入延迟", "Write Await"), awaitText(load.writeAwaitMilliseconds)),
        pair(utilizationLabel(queue), utilizationText(load.utilization)),
        pair(text::localized("平均队列深度", "Avg Queue Depth"), queueDepthText(load.averageQueueDepth, queue)),
        pair(text::localized("在途请求", "In Flight"), std::to_string(load.inFlight)));
}

std::string humanLine(const Figures& f) {
    const auto pair = [](std::string_view zh, std::string_view en, const std::string& value) {
        return text::localized(zh, en) + " " + value;
    };
    return fmt::format("{}  {}  {}  {}  {}  {}  {}", MonitorMetrics::durationText(f.duration),
                       pair("读取速度", "Read Speed", text::cardSpeedText(f.speeds.read)),
                       pair("写入速度", "Write Speed", text::cardSpeedText(f.speeds.write)),
                       pair("读操作频率", "Read Ops Rate", text::operationRateText(f.rates.read)),
                       pair("写操作频率", "Write Ops Rate", text::operationRateText(f.rates.write)),
                       pair("累计读取", "Total Read", text::totalBytesText(f.totalReadBytes)),
                       pair("累计写入", "Total Write", text::totalBytesText(f.totalWriteBytes)));
}

ordered_json jsonLine(const Figures& f) {
    auto line = ordered_json{{"duration", f.duration},
                             {"readSpeed", f.speeds.read},
                             {"writeSpeed", f.speeds.write},
                             {"readOperationsRate", f.rates.read},
                             {"writeOperationsRate", f.rates.write},
                             {"totalReadBytes", f.totalReadBytes},
                             {"totalWriteBytes", f.totalWriteBytes},
                             {"samples", f.samples}};
    addLoadFigures(line, f.load);
    return line;
}

// The whole run: which volume, how much moved, over how long, and the sums of the history it kept.
ordered_json jsonSummary(const DiskIOMonitor::State& state, double duration, const DiskVolumeDescriptor& volume) {
    std::uint64_t readOps = 0, writeOps = 0, readBytes = 0, writeBytes = 0;
    for (const auto& sample : state.samples) {
        readBytes += sample.readBytes;
        writeBytes += sample.writeBytes;
        readOps += sample.readOperations;
        writeOps += sample.writeOperations;
    }
    auto summary = ordered_json{{"summary",
                                 {{"device", volume.deviceName},
                                  {"url", volume.url},
                                  {"displayName", volume.displayName},
                                  {"precisionMilliseconds", DiskIOMonitor::rawValue(state.samplingPrecision)},
                                  {"duration", duration},
                                  {"samples", state.samples.size()},
                                  {"totalReadBytes", state.totalReadBytes},
                                  {"totalWriteBytes", state.totalWriteBytes},
                                  {"historyReadBytes", readBytes},
                                  {"historyWriteBytes", writeBytes},
                                  {"historyReadOperations", readOps},
                                  {"historyWriteOperations", writeOps}}}};
    // The whole run's figures: its summed counters, the span iostat would report for the same time.
    addLoadFigures(summary["summary"], loadFigures(state.totalLoad));
    return summary;
}

std::string humanSummary(const DiskIOMonitor::State& state, double duration) {
    const double seconds = duration > 0 ? duration : 1;
    const auto averageRead = text::cardSpeedText(static_cast<double>(state.totalReadBytes) / seconds);
    const auto averageWrite = text::cardSpeedText(static_cast<double>(state.totalWriteBytes) / seconds);
    if (text::isEnglish()) {
        return fmt::format("Monitored {} with {} samples. Total Read {} (average {}), Total Write {} (average {}).",
                           MonitorMetrics::durationText(duration), state.samples.size(),
                           text::totalBytesText(state.totalReadBytes), averageRead,
                           text::totalBytesText(state.totalWriteBytes), averageWrite);
    }
    return fmt::format("共监控 {}，{} 个样本。累计读取 {}（平均 {}），累计写入 {}（平均 {}）。",
                       MonitorMetrics::durationText(duration), state.samples.size(),
                       text::totalBytesText(state.totalReadBytes), averageRead,
                       text::totalBytesText(state.totalWriteBytes), averageWrite);
}

// The whole run's request figures, in a sentence.
std::string latencySummary(const DiskIOMonitor::State& state) {
    const auto load = loadFigures(state.totalLoad);
    const auto& queue = state.selectedVolume ? state.selectedVolume->queue : std::nullopt;
    if (text::isEnglish()) {
        return fmt::format("Read Await {}, Write Await {}, {} {}, Avg Queue Depth {}.",
                           awaitText(load.readAwaitMilliseconds), awaitText(load.writeAwaitMilliseconds),
                           utilizationLabel(queue), utilizationText(load.utilization),
                           queueDepthText(load.averageQueueDepth, queue));
    }
    return fmt::format("读取延迟 {}，写入延迟 {}，{} {}，平均队列深度 {}。", awaitText(load.readAwaitMilliseconds),
                       awaitText(load.writeAwaitMilliseconds), utilizationLabel(queue),
                       utilizationText(load.utilization), queueDepthText(load.averageQueueDepth, queue));
}

// A run is at most a year long.
constexpr double kLongestDuration = 365.0 * 24 * 60 * 60;

// The figures are looked at once a second, and each report first fetches the pending samples, so
// the batches need not reach the main thread at a display's rate.
constexpr std::chrono::seconds kDeliveryInterval{1};

// Drives one monitoring run on the main loop: select, start, a line a second, stop, summary.
class MonitorSession {
public:
    MonitorSession(MonitorOptions options, Environment& environment, std::shared_ptr<LoopMainExecutor> main)
        : options_(std::move(options)),
          environment_(environment),
          out_(*environment.out),
          err_(*environment.err),
          main_(std::move(main)),
          monitor_(environment.system.makeMonitor(main_, kDeliveryInterval)),
          reportQueue_("com.vantorix.cli.report", QualityOfService::utility) {}

    ~MonitorSession() {
        if (reportTimer_) reportTimer_->cancel();
        if (stopTimer_) stopTimer_->cancel();
    }

    int run() {
        subscription_ = monitor_->subscribe(
            main_->failingTheLoop([this](const DiskIOMonitor::State& state) { observe(state); }));
        monitor_->setSamplingPrecision(options_.precision);
        monitor_->selectVolume(options_.path);
        main_->run();
        return exitStatus_;
    }

    // Called on the main thread when a signal asks to stop, or the output went away (SIGPIPE).
    void interrupt(int signal) {
        if (stopSignal_ == 0) stopSignal_ = signal;
        requestStop();
    }

private:
    enum class Phase { selecting, starting, running, stopping, done };

    void observe(const DiskIOMonitor::State& state) {
        switch (phase_) {
            case Phase::selecting:
                if (state.selectedVolume) {
                    phase_ = Phase::starting;
                    volume_ = *state.selectedVolume;
                    announce(*state.selectedVolume);
                    monitor_->startMonitoring();
                } else if (state.error) {
                    fail(*state.error);
                }
                break;
            case Phase::starting:
                if (state.isMonitoring) {
                    phase_ = Phase::running;
                    startReporting();
                }
                break;
            case Phase::running:
                lastDuration_ = state.monitoringDuration;
                if (!state.isMonitoring) {  // the run ended by itself: the error is already set
                    failure_ = state.error;
                    finish(state);
                }
                break;
            case Phase::stopping:
                if (state.isMonitoring) lastDuration_ = state.monitoringDuration;
                else finish(state);
                break;
            case Phase::done: break;
        }
    }

    void announce(const DiskVolumeDescriptor& volume) {
        const int ms = DiskIOMonitor::rawValue(options_.precision);
        // The label is bytes from outside: shown safely.
        err_ << text::terminalText(text::isEnglish()
                                       ? fmt::format("Monitoring {} ({}) every {} ms. Press Ctrl-C to stop.",
                                                     volume.displayName, volume.deviceName, ms)
                                       : fmt::format("正在监控 {}（{}），每 {} 毫秒采样一次。按 Ctrl-C 停止。",
                                                     volume.displayName, volume.deviceName, ms))
             << std::endl;
    }

    void startReporting() {
        reportTimer_ = std::make_unique<RepeatingTimer>(reportQueue_);
        const auto second = std::chrono::seconds(1);
        reportTimer_->schedule(second, second, std::chrono::milliseconds(10));
        reportTimer_->setHandler([this] {
            main_->post([this] {
                // The pending samples arrive through the main loop; the report follows them.
                monitor_->deliverPendingSamples();
                main_->post([this] { report(); });
            });
        });
        reportTimer_->resume();
        if (options_.duration) {
            stopTimer_ = std::make_unique<RepeatingTimer>(reportQueue_);
            const auto end = std::chrono::duration_cast<RepeatingTimer::Duration>(
                std::chrono::duration<double>(*options_.duration));
            stopTimer_->schedule(end, std::chrono::hours(24), std::chrono::milliseconds(1));
            stopTimer_->setHandler([this] {
                stopTimer_->cancel();
                main_->post([this] { requestStop(); });
            });
            stopTimer_->resume();
        }
    }

    void report() {
        if (phase_ != Phase::running) return;
        const auto& state = monitor_->state();
        const auto figures = figuresOf(state, state.monitoringDuration);
        if (options_.json) printJson(out_, jsonLine(figures), -1);
        else if (options_.latency)
            out_ << humanLine(figures) << latencyColumns(figures.load, volume_.queue) << std::endl;
        else out_ << humanLine(figures) << std::endl;
        if (environment_.outputLost()) interrupt(SIGPIPE);
    }

    void requestStop() {
        if (phase_ == Phase::running || phase_ == Phase::starting) {
            phase_ = Phase::stopping;
            if (reportTimer_) reportTimer_->cancel();
            if (stopTimer_) stopTimer_->cancel();
            monitor_->stopMonitoring(true);
        } else if (phase_ == Phase::selecting) {
            exitStatus_ = stoppedBy(stopSignal_);
            phase_ = Phase::done;
            main_->stop();
        }
    }

    void finish(const DiskIOMonitor::State& state) {
        phase_ = Phase::done;
        if (reportTimer_) reportTimer_->cancel();
        if (stopTimer_) stopTimer_->cancel();
        // A run that failed before its first sample has nothing to sum up: the error says it all.
        if (!failure_ || !state.samples.empty()) {
            if (options_.json) printJson(out_, jsonSummary(state, lastDuration_, volume_), -1);
            else if (options_.latency)
                out_ << humanSummary(state, lastDuration_) << (text::isEnglish() ? " " : "") << latencySummary(state)
                     << std::endl;
            else out_ << humanSummary(state, lastDuration_) << std::endl;
        }
        const bool exported = exportChart(state);
        if (failure_) {
            reportFailure(failure_->name(), failure_->description());
            exitStatus_ = kFailure;
        } else if (!exported) {
            exitStatus_ = kFailure;
        } else {
            exitStatus_ = stopSignal_ != 0 ? stoppedBy(stopSignal_) : kSuccess;
        }
        main_->stop();
    }

    // The chart export of the whole history, when --csv asked for it: the CSV file, and the PNG and
    // the latency CSV beside it. The outcome is a result, so it goes to standard output, unless that
    // carries JSON only; a failure goes to standard error. False when nothing was exported.
    bool exportChart(const DiskIOMonitor::State& state) {
        if (!options_.csvPath) return true;
        // Runs on the main thread, where the picture's QGuiApplication must live.
        const auto outcome = LatencyExport::exportChart(SampleWindow(state.samples),
                                                        DiskIOMonitor::rawValue(state.samplingPrecision),
                                                        *options_.csvPath, render::chartPNGRenderer());
        if (!outcome) {
            reportFailure("chartExportFailed", text::localized("样本不足 2 个，未导出图表。",
                                                               "Fewer than 2 samples: the chart was not exported."));
            return false;
        }
        if (!outcome->saved) reportFailure("chartExportFailed", outcome->text);
        else (options_.json ? err_ : out_) << text::terminalLines(outcome->text) << std::endl;
        return outcome->saved;
    }

    void fail(const MonitorError& error) {
        phase_ = Phase::done;
        reportFailure(error.name(), error.description());
        exitStatus_ = kFailure;
        main_->stop();
    }

    // A failure: its message on standard error, and with --json a line of its own in the stream.
    void reportFailure(std::string_view code, const std::string& message) {
        err_ << text::terminalLines(message) << std::endl;
        if (options_.json) printJsonError(out_, code, message, -1);
    }

    MonitorOptions options_;
    Environment& environment_;
    std::ostream& out_;
    std::ostream& err_;
    std::shared_ptr<LoopMainExecutor> main_;
    std::shared_ptr<DiskIOMonitor> monitor_;
    Subscription subscription_;
    SerialQueue reportQueue_;
    std::unique_ptr<RepeatingTimer> reportTimer_;
    std::unique_ptr<RepeatingTimer> stopTimer_;
    Phase phase_ = Phase::selecting;
    double lastDuration_ = 0;
    DiskVolumeDescriptor volume_;
    std::optional<MonitorError> failure_;
    int stopSignal_ = 0;
    int exitStatus_ = kSuccess;
};

}  // namespace

int runMonitor(const MonitorOptions& options, Environment& environment) {
    // Signals are blocked before the monitor's threads start, so only the watcher receives them.
    std::shared_ptr<LoopMainExecutor> main = std::make_shared<LoopMainExecutor>();
    MonitorSession* current = nullptr;
    SignalWatcher signals(main, [&current](int signal) {
        if (current != nullptr) current->interrupt(signal);
    });
    MonitorSession session(options, environment, main);
    current = &session;
    const int status = session.run();
    current = nullptr;
    return status;
}

Command addMonitorCommand(CLI::App& parent) {
    struct Parsed {
        MonitorOptions options;
        int precision = 1000;
        double duration = 0;
    };
    auto parsed = std::make_shared<Parsed>();
    auto* command = parent.add_subcommand(
        "monitor", text::localized("监控文件夹所在卷的实时读写",
                                   "Watch the live read and write traffic of the volume behind a folder"));
    command->add_option("path", parsed->options.path, text::localized("卷上的文件夹", "A folder on the volume"))
        ->required();
    command
        ->add_option("--precision", parsed->precision,
                     text::localized("采样间隔（毫秒）", "Sampling interval in milliseconds"))
        ->check(CLI::IsMember({1, 10, 100, 1000}))
        ->default_val(1000);
    auto* durationOption = command
                               ->add_option("--duration", parsed->duration,
                                            text::localized("监控时长（秒），默认直到按下 Ctrl-C",
                                                            "Seconds to monitor; until Ctrl-C when absent"))
                               ->check(secondsCheck(0, false, kLongestDuration));
    command->add_flag("--json", parsed->options.json,
                      text::localized("每行输出一个 JSON 对象", "Print one JSON object per line"));
    command->add_flag(
        "--latency", parsed->options.latency,
        text::localized("每行加上延迟、利用率、平均队列深度和在途请求",
                        "Add await, utilization, average queue depth and requests in flight to each line"));
    command
        ->add_option(
            "--csv", parsed->options.csvPath,
            text::localized("结束时将图表数据导出为 CSV 文件，并在旁边保存同名 PNG 图表和延迟 CSV（名称加 -latency）",
                            "At the end, export the chart data as this CSV file, and beside it the chart as a PNG "
                            "and the latency figures as a CSV named with -latency"))
        ->type_name("FILE")
        ->check(CLI::Validator(
            [](std::string& path) {
                // Refused before monitoring starts rather than after: the files beside it as well.
                auto problem = destinationProblem(path);
                if (!problem) problem = destinationProblem(ChartExportSupport::pngPath(path));
                if (!problem) problem = destinationProblem(LatencyExport::csvPath(path));
                return problem.value_or("");
            },
            ""));
    return {command, [parsed, durationOption](Environment& environment) {
                parsed->options.precision = *DiskIOMonitor::precisionFromRawValue(parsed->precision);
                if (*durationOption) parsed->options.duration = parsed->duration;
                return runMonitor(parsed->options, environment);
            }};
}

}  // namespace vantorix::cli
