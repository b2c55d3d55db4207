#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "benchmark/DiskPerformanceTester.h"
#include "benchmark/PerformanceMetrics.h"
#include "benchmark/ResultHistory.h"
#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/LinkCeilingJson.h"
#include "cli/OptionChecks.h"
#include "cli/SignalWatcher.h"
#include "cli/SmartFetch.h"
#include "cli/SmartHistory.h"
#include "cli/StandardStreams.h"
#include "cli/TextTable.h"
#include "composition/SmartPipeline.h"
#include "concurrency/LoopMainExecutor.h"
#include "health/HealthHistory.h"
#include "json/JsonText.h"
#include "smart/HelperApprovalTexts.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/TerminalText.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;
using text::localized;

// The largest --payload-bytes: a petabyte.
constexpr std::uint64_t kLargestPayload = 1'000'000'000'000'000;
// The largest --size of the sustained profile, in GB: a petabyte.
constexpr std::uint64_t kLargestSizeGigabytes = 1'000'000;

// The sizes the other tests offer, as the menu does.
bool isMenuSize(const std::string& size) {
    for (const char* choice : {"full", "1", "10", "100", "1000", "10000"}) {
        if (size == choice) return true;
    }
    return false;
}

// "full" or a whole number of gigabytes.
CLI::Validator sizeCheck() {
    return {[](std::string& value) -> std::string {
                if (value == "full") return {};
                const bool digits = !value.empty() && value.size() <= 7 &&
                                    value.find_first_not_of("0123456789") == std::string::npos;
                if (digits && std::stoull(value) >= 1 && std::stoull(value) <= kLargestSizeGigabytes) return {};
                return text::isEnglish()
                           ? fmt::format("must be full or a whole number of GB from 1 to {}", kLargestSizeGigabytes)
                           : fmt::format("应为 full 或 1 到 {} 之间的整数 GB", kLargestSizeGigabytes);
            },
            ""};
}

std::string progressLine(const ProgressState& progress) {
    const std::string eta = progress.estimatedRemainingTime
                                ? PerformanceMetrics::durationText(*progress.estimatedRemainingTime)
                                : localized("计算中…", "Calculating…");
    return fmt::format("{}  {}  {} {}  {} {}", progressPhaseText(progress),
                       PerformanceMetrics::progressText(progress.fractionCompleted), localized("已用时间", "Elapsed"),
                       PerformanceMetrics::durationText(progress.elapsedTime), localized("预计剩余", "ETA"), eta);
}

std::string isoTime(std::chrono::system_clock::time_point time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(time - seconds).count();
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)),
                       millis);
}

// Each figure against the previous run of the same kind on the drive; null without one.
ordered_json comparisonJson(const std::optional<ResultComparison>& comparison) {
    if (!comparison) return nullptr;
    ordered_json changes = ordered_json::array();
    for (const auto& change : comparison->changes) {
        changes.push_back({{"figure", change.name},
                           {"previous", change.previous},
                           {"current", change.current},
                           {"percent", change.percent},
                           {"dropped", change.dropped}});
    }
    return {{"previousFinishedAt", isoTime(comparison->previousFinishedAt)}, {"changes", changes}};
}

// The sustained-write test's points, cliff and speeds; null for the other tests.
ordered_json sustainedJson(const std::optional<SustainedWriteFigures>& figures) {
    if (!figures) return nullptr;
    ordered_json points = ordered_json::array();
    for (const auto& point : figures->points) {
        points.push_back({{"bytesWritten", point.bytesWritten},
                          {"seconds", point.seconds},
                          {"bytesPerSecond", point.bytesPerSecond},
                          {"celsius", point.celsius ? ordered_json(*point.celsius) : ordered_json(nullptr)}});
    }
    ordered_json cliff = nullptr;
    if (figures->cliff) {
        cliff = {{"bytes", figures->cliff->bytes},
                 {"secondsIn", figures->cliff->secondsIn},
                 {"speedBefore", figures->cliff->speedBefore},
                 {"speedAfter", figures->cliff->speedAfter}};
    }
    return {{"bytesWritten", figures->bytesWritten},
            {"seconds", figures->seconds},
            {"averageBytesPerSecond", figures->averageBytesPerSecond},
            {"initialBytesPerSecond", figures->initialBytesPerSecond},
            {"cliff", cliff},
            {"steadyBytesPerSecond", figures->steadyBytesPerSecond},
            {"stoppedEarly", figures->stoppedEarly},
            {"points", points}};
}

ordered_json resultJson(const PerformanceResult& result, const DiskVolumeDescriptor& volume,
                        const std::optional<std::string>& reportPath, const std::string& reportMessage) {
    ordered_json timeline = ordered_json::array();
    for (const auto& sample : result.timeline) {
        timeline.push_back({{"phase", TimelineSample::rawValue(sample.phase)},
                            {"timestamp", sample.timestamp},
                            {"bytesTransferred", sample.bytesTransferred},
                            {"throughput", sample.throughput}});
    }
    ordered_json phases = ordered_json::array();
    for (const auto& traffic : result.phaseTraffic) {
        phases.push_back(
            {{"phase", rawValue(traffic.phase)},
             {"bytesMoved", traffic.bytesMoved},
             {"deviceBytes", traffic.deviceBytes ? ordered_json(*traffic.deviceBytes) : ordered_json(nullptr)},
             {"servedFromPageCache", traffic.servedFromPageCache()}});
    }
    const auto linkShare = volume.link
                               ? ceilingFraction(PerformanceMetrics::bestSequentialThroughput(result), *volume.link)
                               : std::nullopt;
    ordered_json mode{{"kind", rawValue(result.mode.kind)}, {"bypassCache", result.mode.usesDirectIo()}};
    if (result.mode.kind == TestKind::queueDepth) mode["secondsPerProfile"] = result.mode.secondsPerProfile;
    ordered_json queueDepth = ordered_json::array();
    for (const auto& figure : result.queueDepthFigures) {
        queueDepth.push_back({{"profile", figure.profile},
                              {"readBytesPerSecond", figure.readBytesPerSecond},
                              {"readIOPS", figure.readIOPS},
                              {"writeBytesPerSecond", figure.writeBytesPerSecond},
                              {"writeIOPS", figure.writeIOPS}});
    }
    return ordered_json{
        {"volume", {{"url", volume.url}, {"device", volume.deviceName}, {"displayName", volume.displayName}}},
        {"mode", mode},
        {"dataSize", result.dataSize.id()},
        {"actualByteCount", result.actualByteCount},
        {"isPayloadAdjusted", result.isPayloadAdjusted},
        {"writeDuration", result.writeDuration},
        {"writeThroughput", result.writeThroughput},
        {"readDuration", result.readDuration},
        {"readThroughput", result.readThroughput},
        {"randomWriteIOPS", result.randomWriteIOPS},
        {"randomReadIOPS", result.randomReadIOPS},
        {"randomBlockSize", result.randomBlockSize},
        {"randomOperationCount", result.randomOperationCount},
        {"maximumWriteThroughput", result.maximumWriteThroughput},
        {"maximumReadThroughput", result.maximumReadThroughput},
        {"finishedAt", isoTime(result.finishedAt)},
        {"timeline", timeline},
        {"queueDepth", queueDepth},
        {"sustained", sustainedJson(result.sustained)},
        {"linkCeiling", linkCeilingJson(volume.link)},
        {"linkCeilingShare", linkShare ? ordered_json(*linkShare) : ordered_json(nullptr)},
        {"phases", phases},
        {"comparison", comparisonJson(result.comparison)},
        {"reportPath", reportPath ? ordered_json(*reportPath) : ordered_json(nullptr)},
        {"reportMessage", reportMessage},
    };
}

// The deep profiles as columns: test, read speed, read IOPS, write speed, write IOPS.
void printQueueDepthTable(std::ostream& out, const std::vector<QueueDepthFigure>& figures) {
    std::vector<std::vector<std::string>> rows{{localized("测试", "Test"), localized("读取", "Read"),
                                                localized("读取 IOPS", "Read IOPS"), localized("写入", "Write"),
                                                localized("写入 IOPS", "Write IOPS")}};
    for (const auto& figure : figures) {
        rows.push_back({figure.profile, PerformanceMetrics::speedText(figure.readBytesPerSecond),
                        PerformanceMetrics::iopsText(figure.readIOPS),
                        PerformanceMetrics::speedText(figure.writeBytesPerSecond),
                        PerformanceMetrics::iopsText(figure.writeIOPS)});
    }
    std::vector<std::size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            // The name is aligned left, the figures right.
            const std::string padding(widths[i] - displayWidth(row[i]), ' ');
            line += i == 0 ? row[i] + padding : "  " + padding + row[i];
        }
        out << line << '\n';
    }
}

std::string kindTitle(const std::string& kind) {
    if (kind == "standard") return localized("标准（经过页面缓存）", "Standard (through the page cache)");
    if (kind == "standardDirect") return localized("绕过缓存（直接 I/O）", "Cache bypass (direct I/O)");
    if (kind == "queueDepth") return localized("队列深度（io_uring）", "Queue depth (io_uring)");
    if (kind == "sustainedWrite") return localized("持续写入", "Sustained write");
    return kind;
}

int historyFailure(const BenchOptions& options, Environment& environment, std::string_view code,
                   const std::string& message) {
    *environment.err << text::terminalLines(message) << std::endl;
    if (options.json) printJsonError(*environment.out, code, message);
    return kFailure;
}

// The runs recorded for the drive behind the folder, oldest first, each figure with its change
// since the previous run of the same kind. Asking creates no file.
int showBenchHistory(const BenchOptions& options, Environment& environment) {
    auto volume = DiskVolumeResolver::resolve(options.path, *environment.system.volumes, *environment.system.devices);
    if (!volume) return historyFailure(options, environment, volume.error().name(), volume.error().description());
    const std::string none =
        text::isEnglish() ? fmt::format("No performance test of the drive of {} has been recorded.", volume->deviceName)
                          : fmt::format("没有 {} 所在硬盘的性能测试记录。", volume->deviceName);
    auto device = environment.system.devices->device(volume->deviceName);
    if (!device) {
        return historyFailure(
            options, environment, "noDrive",
            text::isEnglish()
                ? fmt::format("{} is not on a drive ({}): performance tests are recorded for drives only.",
                              options.path, volume->deviceName)
                : fmt::format("{} 不在硬盘上（{}）：只有硬盘的性能测试会被记录。", options.path, volume->deviceName));
    }
    const health::DriveIdentity drive = driveIdentity(device.value());
    const std::string path = options.database.value_or(health::HealthHistory::userPath());
    if (!drive.known() || path.empty() || !std::filesystem::exists(path))
        return historyFailure(options, environment, "noHistory", none);
    auto history = health::HealthHistory::open(path);
    if (!history) return historyFailure(options, environment, "historyUnavailable", history.error());
    auto runs = history.value()->runs(drive.key());
    if (!runs) return historyFailure(options, environment, "historyUnavailable", runs.error());
    if (runs->empty()) return historyFailure(options, environment, "noHistory", none);

    ordered_json list = ordered_json::array();
    for (const auto& run : *runs) {
        const auto figures = storedFigures(run);
        const auto* previous = previousRun(*runs, run.kind, run.finishedMs);
        const auto comparison = previous ? std::optional(compareWith(figures, *previous)) : std::nullopt;
        const auto phases = storedPageCheck(run);
        const auto finished = std::chrono::system_clock::time_point(std::chrono::milliseconds(run.finishedMs));
        if (options.json) {
            ordered_json values = ordered_json::object();
            for (const auto& figure : figures) values[figure.name] = figure.value;
            list.push_back({{"finishedAt", isoTime(finished)},
                            {"kind", run.kind},
                            {"payloadBytes", run.payloadBytes},
                            {"figures", values},
                            {"phases", ordered_json::parse(run.pageCache, nullptr, false)},
                            {"version", run.version},
                            {"comparison", comparisonJson(comparison)}});
            continue;
        }
        auto& out = *environment.out;
        out << text::terminalText(text::mediumDateTimeText(finished) + " · " + kindTitle(run.kind) + " · " +
                                  PerformanceMetrics::sizeText(run.payloadBytes))
            << '\n';
        std::vector<std::pair<std::string, std::string>> rows;
        for (const auto& figure : figures) {
            std::string value = figureValueText(figure.name, figure.value);
            const auto* change = comparison ? comparison->change(figure.name) : nullptr;
            if (change != nullptr) {
                value += localized("（", " (") + changeText(change->percent) + (change->dropped ? " ⚠" : "") +
                         localized("）", ")");
            }
            rows.emplace_back("  " + figureTitle(figure.name), value);
        }
        for (const auto& traffic : phases) {
            if (traffic.servedFromPageCache())
                rows.emplace_back("  " + phaseName(traffic.phase), phaseTrafficText(traffic) + " ⚠");
        }
        printTable(out, rows);
    }
    if (options.json) {
        printJson(*environment.out, ordered_json{{"drive", identityJson(drive)}, {"runs", list}});
    }
    *environment.out << std::flush;
    return kSuccess;
}

// Drives one run on the main loop: start, progress, outcome, report.
class BenchSession {
public:
    BenchSession(BenchOptions options, Environment& environment, std::shared_ptr<LoopMainExecutor> main)
        : options_(std::move(options)),
          environment_(environment),
          out_(*environment.out),
          err_(*environment.err),
          main_(std::move(main)),
          interactive_(environment.err == &standardError() && ::isatty(STDERR_FILENO) == 1) {}

    int run() {
        auto resolved = DiskVolumeResolver::resolve(options_.path, *environment_.system.volumes,
                                                    *environment_.system.devices);
        if (!resolved) return fail(resolved.error().name(), resolved.error().description());
        volume_ = std::move(resolved).value();

        DiskPerformanceTester::Parameters parameters;
        if (options_.randomSeconds) parameters.randomPhaseDuration = *options_.randomSeconds;
        parameters.payloadBytes = options_.payloadBytes;
        // Each finished run is recorded for its drive and compared with the previous one of its kind.
        std::optional<DiskPerformanceTester::Dependencies::History> history;
        if (const std::string path = options_.database.value_or(health::HealthHistory::userPath()); !path.empty()) {
            history = {path, VANTORIX_VERSION};
        }
        TestMode mode;
        mode.kind = options_.profile == "deep"        ? TestKind::queueDepth
                    : options_.profile == "sustained" ? TestKind::sustainedWrite
                                                      : TestKind::standard;
        smart_ = SmartPipeline::system(main_, RegistrationPolicy{false});
        // The sustained write follows the drive's temperature, when the helper gives it.
        tester_ = environment_.system.makeTester(
            main_, parameters, mode.kind == TestKind::sustainedWrite ? smart_->temperatureProbe() : nullptr, history);
        // Without a size, the sustained write takes its share of the free space.
        const bool sustainedDefault = mode.kind == TestKind::sustainedWrite && !options_.sizeGiven;
        tester_->setDataSize(options_.size == "full" || sustainedDefault
                                 ? DataSize::availableSpace()
                                 : DataSize::gigabytes(std::stoll(options_.size)));
        mode.bypassCache = options_.direct;
        mode.secondsPerProfile = options_.seconds;
        tester_->setTestMode(mode);

        const auto preview = tester_->payloadPreview(volume_);
        // The report carries the drive's SMART data when the helper answers. It is read before the
        // test starts (SMART commands cost the drive time the test would measure), and only for a
        // test that can run.
        if (preview || options_.payloadBytes) {
            readSmartInfo();
            if (stopSignal_ != 0) {
                fail("interrupted", localized("性能测试已停止。", "Performance test stopped."));
                return stoppedBy(stopSignal_);
            }
        }
        auto context = performancePayloadContext(volume_, tester_->state().dataSize, preview);
        if (options_.payloadBytes && preview) {
            context.description = localized("数据量：", "Payload: ") + payloadSizeText(preview->byteCount);
        }
        if (!mode.isDefault()) context.description += localized("；", "; ") + modeDescription(mode);
        tester_->runTest(volume_);
        if (!tester_->state().isRunning) {
            return fail("testFailed", tester_->state().errorMessage.value_or(context.description));
        }
        if (smartNote_) err_ << text::terminalLines(*smartNote_) << std::endl;
        if (const auto warning = volume_->link ? slowLinkWarning(*volume_->link) : std::nullopt) {
            err_ << localized("警告：", "Warning: ") << *warning << std::endl;
        }
        // The label and the path are bytes from outside: shown safely.
        err_ << text::terminalText(
                    text::isEnglish()
                        ? fmt::format("Testing {} ({}) in {}. {}. Press Ctrl-C to stop.", volume_->displayName,
                                      volume_->deviceName, volume_->url, context.description)
                        : fmt::format("正在测试 {}（{}），目录 {}。{}。按 Ctrl-C 停止。", volume_->displayName,
                                      volume_->deviceName, volume_->url, context.description))
             << std::endl;
        try {
            subscription_ = tester_->subscribe(
                main_->failingTheLoop([this](const DiskPerformanceTester::State& state) { observe(state); }));
            observe(tester_->state());
            main_->run();
        } catch (...) {
            // A failure on the main thread ends the command, but not before the test has stopped
            // and its files are gone.
            subscription_.cancel();
            tester_->stopTest();
            tester_->waitForBackgroundWork();
            throw;
        }
        tester_->waitForBackgroundWork();
        return exitStatus_;
    }

    // A signal, or the output went away (SIGPIPE): the test stops and its files go.
    void interrupt(int signal) {
        if (done_ || stopSignal_ != 0) return;
        stopSignal_ = signal;
        smartCancellation_.cancel();
        if (tester_) tester_->stopTest();
    }

private:
    void readSmartInfo() {
        const SmartPipeline& pipeline = *smart_;
        const ApprovalListener approval;
        const auto outcome = fetchSmartInfo(pipeline, *main_, volume_->deviceName, smartCancellation_);
        if (stopSignal_ != 0) return;
        volume_->smartInfo = outcome.info;
        if (outcome.info) return;
        auto reason = helperUnavailableReason(pipeline, approval);
        if (!reason && outcome.helperFailure) {
            reason = smart::helperRequestFailedMessage(volume_->deviceName, *outcome.helperFailure);
        }
        smartNote_ =
            localized("报告中将没有 SMART 数据：", "The report will have no SMART data: ") +
            (reason ? *reason
                    : localized("硬盘没有提供可用的 SMART 信息。", "the drive gave no usable SMART information."));
    }

    void observe(const DiskPerformanceTester::State& state) {
        if (done_) return;
        if (state.isRunning) {
            if (state.progressState) showProgress(progressLine(*state.progressState));
            return;
        }
        endProgressLine();
        if (stopSignal_ != 0) {
            fail("interrupted", localized("性能测试已停止，测试文件已删除。",
                                          "Performance test stopped; its test files were removed."));
            finish(stoppedBy(stopSignal_));
        } else if (state.lastResult && !state.automaticReportMessage) {
            // Success: the report is being written; its message follows.
        } else if (state.lastResult) {
            printResult(*state.lastResult, state);
            finish(state.lastReportPath ? kSuccess : kFailure);
        } else {
            fail("testFailed", state.errorMessage.value_or(""));
            main_->stop();
        }
    }

    // Shows a progress line when its text changed: in place on a terminal, else as a new line.
    void showProgress(const std::string& line) {
        if (line == lastProgressLine_) return;
        lastProgressLine_ = line;
        if (interactive_) {
            err_ << "\r\033[K" << text::terminalText(line) << std::flush;
            lineOpen_ = true;
        } else {
            err_ << text::terminalText(line) << '\n' << std::flush;
        }
        if (environment_.outputLost()) interrupt(SIGPIPE);
    }

    void endProgressLine() {
        if (lineOpen_) err_ << '\n' << std::flush;
        lineOpen_ = false;
    }

    void printResult(const PerformanceResult& result, const DiskPerformanceTester::State& state) {
        if (options_.json) {
            auto document = resultJson(result, *volume_, state.lastReportPath, *state.automaticReportMessage);
            // The figures hold; the report is missing: the failure in the same shape.
            if (!state.lastReportPath) document.update(jsonError("reportWriteFailed", *state.automaticReportMessage));
            printJson(out_, document);
        } else {
            std::vector<std::pair<std::string, std::string>> rows;
            for (const auto& item : PerformanceMetrics::resultItems(result)) rows.emplace_back(item.title, item.value);
            if (result.mode.kind == TestKind::standard) {
                rows.emplace_back(localized("随机操作次数", "Random Operations"),
                                  std::to_string(result.randomOperationCount));
            }
            for (const auto& traffic : result.phaseTraffic) {
                rows.emplace_back(phaseName(traffic.phase), phaseTrafficText(traffic));
            }
            // The best sequential speed against what the link can carry at most.
            if (volume_->link) {
                if (const auto ceiling = ceilingValueText(*volume_->link)) {
                    std::string value = *ceiling;
                    if (const auto share = ceilingShareText(PerformanceMetrics::bestSequentialThroughput(result),
                                                            *volume_->link)) {
                        value += localized("；最佳顺序速度", "; best sequential speed at ") + *share;
                    }
                    rows.emplace_back(localized("链路上限", "Link ceiling"), value);
                }
            }
            printTable(out_, rows);
            if (result.sustained) out_ << '\n' << PerformanceMetrics::cliffSentence(*result.sustained) << '\n';
            if (!result.queueDepthFigures.empty()) {
                out_ << '\n';
                printQueueDepthTable(out_, result.queueDepthFigures);
            }
            out_ << std::flush;
        }
        for (const auto& warning : pageCacheWarnings(result.phaseTraffic)) err_ << warning << '\n';
        for (const auto& warning : dropWarnings(result.comparison)) err_ << warning << '\n';
        (state.lastReportPath ? (options_.json ? err_ : out_) : err_)
            << text::terminalLines(*state.automaticReportMessage) << std::endl;
    }

    // Says why the test did not give a result: on standard error, and with --json in the error shape.
    int fail(std::string_view code, const std::string& message) {
        err_ << text::terminalLines(message) << std::endl;
        if (options_.json) printJsonError(out_, code, message);
        exitStatus_ = kFailure;
        done_ = true;
        return kFailure;
    }

    void finish(int status) {
        exitStatus_ = status;
        done_ = true;
        main_->stop();
    }

    BenchOptions options_;
    Environment& environment_;
    std::ostream& out_;
    std::ostream& err_;
    std::shared_ptr<LoopMainExecutor> main_;
    bool interactive_;
    std::optional<DiskVolumeDescriptor> volume_;
    std::shared_ptr<DiskPerformanceTester> tester_;
    Subscription subscription_;
    std::string lastProgressLine_;
    bool lineOpen_ = false;
    int stopSignal_ = 0;
    bool done_ = false;
    CancellationSource smartCancellation_;
    std::optional<SmartPipeline> smart_;
    std::optional<std::string> smartNote_;  // why the report has no SMART data
    int exitStatus_ = kSuccess;
};

}  // namespace

int runBench(const BenchOptions& options, Environment& environment) {
    if (options.history) return showBenchHistory(options, environment);
    // Any number of gigabytes is for the sustained write; the other tests offer the menu's sizes.
    if (options.profile != "sustained" && !isMenuSize(options.size)) {
        *environment.err << text::terminalText(
                                text::isEnglish()
                                    ? fmt::format("--size: {} is not one of full, 1, 10, 100, 1000 and 10000 (other "
                                                  "counts only with --profile sustained)",
                                                  options.size)
                                    : fmt::format(
                                          "--size：{} 不是 full、1、10、100、1000、10000 之一（其他 GB 数只用于 "
                                          "--profile sustained）",
                                          options.size))
                         << std::endl;
        return kUsage;
    }
    // Signals are blocked before the tester's threads start, so only the watcher receives them.
    auto main = std::make_shared<LoopMainExecutor>();
    BenchSession* current = nullptr;
    SignalWatcher signals(main, [&current](int signal) {
        if (current != nullptr) current->interrupt(signal);
    });
    BenchSession session(options, environment, main);
    current = &session;
    const int status = session.run();
    current = nullptr;
    return status;
}

Command addBenchCommand(CLI::App& parent) {
    struct Parsed {
        BenchOptions options;
        std::uint64_t payloadBytes = 0;
        double randomSeconds = 0;
    };
    auto parsed = std::make_shared<Parsed>();
    auto* command = parent.add_subcommand(
        "bench",
        text::localized("对文件夹所在卷运行四阶段性能测试并写出 HTML 报告",
                        "Run the four-phase performance test on the volume behind a folder and write an HTML report"));
    command->add_option("path", parsed->options.path, text::localized("卷上的文件夹", "A folder on the volume"))
        ->required();
    auto* sizeOption =
        command
            ->add_option("--size", parsed->options.size,
                         text::localized("测试样本大小：full（全盘）或 GB 数（1、10、100、1000、10000），默认 1；"
                                         "sustained 测试可用任意 GB 数，默认写入可用空间的 80%（至多 256 GiB）",
                                         "Test Sample Size: full (the whole free space) or a number of GB (1, 10, 100, "
                                         "1000, 10000); 1 by default. The sustained profile takes any number of GB and "
                                         "writes 80% of the free space (at most 256 GiB) by default"))
            ->check(sizeCheck())
            ->default_val("1");
    command->add_flag("--json", parsed->options.json, text::localized("以 JSON 输出", "Print JSON"));
    command->add_flag(
        "--history", parsed->options.history,
        text::localized("列出该卷所在硬盘记录下的各次测试，而不运行测试",
                        "List the tests recorded for the drive behind the folder instead of running one"));
    command
        ->add_option(
            "--database", parsed->options.database,
            text::localized("测试与健康历史文件（默认 $XDG_DATA_HOME/vantorix/health.sqlite）",
                            "The test and health history file (default $XDG_DATA_HOME/vantorix/health.sqlite)"))
        ->type_name("FILE");
    command->add_flag("--direct", parsed->options.direct,
                      text::localized("绕过页面缓存：四个阶段都使用直接 I/O（O_DIRECT）",
                                      "Bypass the page cache: direct I/O (O_DIRECT) in all four phases"));
    command
        ->add_option(
            "--profile", parsed->options.profile,
            text::localized(
                "standard（四阶段测试）、deep（io_uring 队列深度测试：SEQ1M Q8/Q1、RND4K Q32/Q1 的读取与写入，直接 I/O）"
                "或 sustained（io_uring 持续写入一个大文件，1 MiB 块、队列深度 8，直接 I/O，找出速度骤降点）",
                "standard (the four-phase test), deep (queue-depth profiles on io_uring: SEQ1M Q8/Q1 and RND4K Q32/Q1, "
                "read and write, direct I/O) or sustained (one large file written on io_uring in 1 MiB blocks at queue "
                "depth 8, direct I/O, to find where the write speed falls)"))
        ->check(CLI::IsMember({"standard", "deep", "sustained"}))
        ->default_val("standard");
    command
        ->add_option("--seconds", parsed->options.seconds,
                     text::localized("deep 测试中每项读取与写入的秒数，默认 5",
                                     "Seconds of each read and each write of the deep profiles; 5 by default"))
        ->check(secondsCheck(0.1, true, 3600))
        ->default_val(5);
    // Shorter runs for tests and comparisons; not shown by --help.
    auto* payloadOption = command->add_option("--payload-bytes", parsed->payloadBytes)
                              ->check(namingHiddenOption("--payload-bytes", byteCountCheck(4096, kLargestPayload)))
                              ->group("");
    auto* randomOption = command->add_option("--random-seconds", parsed->randomSeconds)
                             ->check(namingHiddenOption("--random-seconds", secondsCheck(0, false, 3600)))
                             ->group("");
    return {command, [parsed, payloadOption, randomOption, sizeOption](Environment& environment) {
                parsed->options.sizeGiven = sizeOption->count() > 0;
                if (*payloadOption) parsed->options.payloadBytes = parsed->payloadBytes;
                if (*randomOption) parsed->options.randomSeconds = parsed->randomSeconds;
                return runBench(parsed->options, environment);
            }};
}

}  // namespace vantorix::cli
