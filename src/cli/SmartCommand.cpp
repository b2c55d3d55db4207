#include <fmt/chrono.h>
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/SignalWatcher.h"
#include "cli/SmartFetch.h"
#include "cli/SmartHistory.h"
#include "cli/TextTable.h"
#include "composition/SmartPipeline.h"
#include "concurrency/LoopMainExecutor.h"
#include "protocol/SmartctlExecutionResult.h"
#include "smart/HelperApprovalTexts.h"
#include "smart/SmartSheetTexts.h"
#include "smart/SmartmontoolsBridge.h"
#include "text/Language.h"
#include "text/SystemError.h"
#include "text/TerminalText.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;

// A saved smartctl output is some hundred kilobytes; a file far larger is something else.
constexpr std::uint64_t kLargestSavedOutput = 64ull << 20;

std::string cannotRead(const std::string& path) {
    return text::isEnglish() ? fmt::format("Cannot read {}.", path) : fmt::format("无法读取 {}。", path);
}

// The contents of a regular file of at most kLargestSavedOutput bytes, or why not. Opened without
// waiting, so that a named pipe with no writer cannot hold the program up.
Result<std::string, std::string> readSavedOutput(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return Failure{text::withSystemError(cannotRead(path), errno)};
    const auto close = [fd](Result<std::string, std::string> result) {
        ::close(fd);
        return result;
    };
    struct stat status {};
    if (::fstat(fd, &status) != 0) return close(Failure{text::withSystemError(cannotRead(path), errno)});
    if (!S_ISREG(status.st_mode)) {
        return close(Failure{text::withCause(cannotRead(path), text::notRegularFileText(status.st_mode))});
    }
    const std::string tooLarge = text::withCause(
        cannotRead(path), text::localized("文件超过 64 MiB，不是保存的 smartctl 输出",
                                          "It is larger than 64 MiB, too large for a saved smartctl output"));
    if (static_cast<std::uint64_t>(status.st_size) > kLargestSavedOutput) return close(Failure{tooLarge});
    // A file that grows past the limit while it is read is caught as it is read.
    std::string contents;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return close(Failure{text::withSystemError(cannotRead(path), errno)});
        if (count == 0) break;
        contents.append(buffer.data(), static_cast<std::size_t>(count));
        if (contents.size() > kLargestSavedOutput) return close(Failure{tooLarge});
    }
    return close(std::move(contents));
}

// smartctl's output nests a few levels; a file nested deeper is something else, and building its
// document would take gigabytes (50 MB of "[" are 50 million arrays). Looked at before parsing.
constexpr std::size_t kDeepestNesting = 64;

bool nestsTooDeep(std::string_view json) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : json) {
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kDeepestNesting) return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

// The run as the helper would have described it: the recorded smartctl arguments when the output
// carries them, its exit status, and the device name for the log lines.
struct Replay {
    SmartctlExecutionResult result;
    std::string deviceName;
    bool isJsonObject = false;
};

Replay replayOf(const std::string& path, std::string contents) {
    Replay replay;
    replay.result.commandDescription = path;
    replay.deviceName = std::filesystem::path(path).stem().string();
    const auto document = smart::parsedDocument(contents);
    replay.isJsonObject = document.has_value();
    if (document) {
        if (const auto tool = document->find("smartctl"); tool != document->end() && tool->is_object()) {
            if (const auto argv = tool->find("argv"); argv != tool->end() && argv->is_array() && !argv->empty()) {
                std::string command;
                for (const auto& argument : *argv) {
                    if (!argument.is_string()) continue;
                    if (!command.empty()) command += ' ';
                    command += argument.get<std::string>();
                }
                if (!command.empty()) replay.result.commandDescription = command;
            }
            if (const auto status = tool->find("exit_status"); status != tool->end() && status->is_number_integer()) {
                const auto value = status->get<std::int64_t>();
                if (value >= std::numeric_limits<std::int32_t>::min() &&
                    value <= std::numeric_limits<std::int32_t>::max()) {
                    replay.result.terminationStatus = static_cast<std::int32_t>(value);
                }
            }
        }
        if (const auto device = document->find("device"); device != document->end() && device->is_object()) {
            if (const auto name = device->find("name"); name != device->end() && name->is_string()) {
                std::string deviceName = name->get<std::string>();
                if (deviceName.rfind("/dev/", 0) == 0) deviceName.erase(0, 5);
                if (!deviceName.empty()) replay.deviceName = deviceName;
            }
        }
    }
    replay.result.jsonData = std::move(contents);
    return replay;
}

// The message goes to standard error; with --json, standard output carries it as the one document.
int fail(const SmartOptions& options, Environment& environment, std::string_view code, const std::string& message) {
    *environment.err << text::terminalLines(message) << '\n';
    if (options.json) printJsonError(*environment.out, code, message);
    return kFailure;
}

ordered_json optionalJson(const auto& value) { return value ? ordered_json(*value) : ordered_json(nullptr); }

ordered_json infoJson(const DiskSMARTInfo& info) {
    ordered_json details = ordered_json::array();
    for (const auto& detail : info.details) {
        details.push_back({{"id", detail.id.text()},
                           {"keyPath", detail.keyPath},
                           {"displayName", detail.displayName},
                           {"value", detail.value}});
    }
    return ordered_json{{"overallStatus", optionalJson(info.overallStatus)},
                        {"isCapable", optionalJson(info.isCapable)},
                        {"sourceCommand", optionalJson(info.sourceCommand)},
                        {"details", std::move(details)}};
}

void printRows(std::ostream& out, const std::vector<DiskSMARTInfo::Detail>& details) {
    std::vector<std::pair<std::string, std::string>> rows;
    rows.reserve(details.size());
    for (const auto& detail : details) rows.emplace_back(detail.displayName, detail.value);
    printTable(out, rows);
}

void printInfo(std::ostream& out, const DiskSMARTInfo& info) {
    std::vector<std::pair<std::string, std::string>> summary;
    if (info.overallStatus && !info.overallStatus->empty()) {
        summary.emplace_back(smart::overallStatusLabel(), *info.overallStatus);
    }
    if (info.isCapable) summary.emplace_back(smart::smartCapableLabel(), smart::capabilityText(*info.isCapable));
    if (!summary.empty()) {
        printTable(out, summary);
        out << '\n';
    }
    if (info.details.empty()) {
        out << smart::noDetailsNote() << '\n';
        return;
    }
    printRows(out, info.details);
}

int replay(const SmartOptions& options, Environment& environment) {
    const std::string& path = *options.jsonFile;
    auto contents = readSavedOutput(path);
    if (!contents.ok()) return fail(options, environment, "fileUnreadable", contents.error());
    const auto notSmartctlOutput = [&] {
        return fail(options, environment, "notSmartctlJSON",
                    text::localized("文件不是 smartctl 的 JSON 输出。", "The file is not smartctl JSON output."));
    };
    if (nestsTooDeep(contents.value())) return notSmartctlOutput();
    const Replay replay = replayOf(path, std::move(contents).value());
    const auto info = smart::interpretResult(replay.result, replay.deviceName);
    if (!info) {
        if (!replay.isJsonObject) return notSmartctlOutput();
        return fail(options, environment, "noUsableData",
                    text::localized("文件中没有可用的 SMART 信息。", "The file holds no usable SMART information."));
    }
    if (options.json) printJson(*environment.out, infoJson(*info));
    else printInfo(*environment.out, *info);
    return kSuccess;
}

std::string noDataMessage(const std::string& deviceName, bool asleep) {
    if (asleep) {
        return text::isEnglish()
                   ? fmt::format("The drive of {} is in standby; smartctl did not wake it to read SMART data.",
                                 deviceName)
                   : fmt::format("{} 所在的硬盘处于待机状态；smartctl 没有唤醒它读取 SMART 数据。", deviceName);
    }
    return text::isEnglish() ? fmt::format("The drive of {} gave no usable SMART information.", deviceName)
                             : fmt::format("{} 所在的硬盘没有提供可用的 SMART 信息。", deviceName);
}

// One fetch through the helper for the drive of a volume, with the name it was asked by.
struct Fetched {
    std::string deviceName;
    SMARTInfoProvider::Outcome outcome;
};

// One fetch through the helper for the volume behind a folder. When it gives no SMART data, the
// reason has been reported and the result is the exit status.
Result<Fetched, int> fetchForVolume(const SmartOptions& options, Environment& environment) {
    auto main = std::make_shared<LoopMainExecutor>();
    CancellationSource cancellation;
    int stopSignal = 0;
    SignalWatcher signals(main, [&](int signal) {
        stopSignal = signal;
        cancellation.cancel();
    });
    auto volume = DiskVolumeResolver::resolve(*options.path, *environment.system.volumes, *environment.system.devices);
    if (!volume.ok()) return Failure{fail(options, environment, volume.error().name(), volume.error().description())};
    const auto pipeline = SmartPipeline::system(main, RegistrationPolicy{false});
    const ApprovalListener approval;
    auto outcome = fetchSmartInfo(pipeline, *main, volume->deviceName, cancellation);
    if (stopSignal != 0) return Failure{stoppedBy(stopSignal)};
    if (!outcome.info) {
        if (const auto reason = helperUnavailableReason(pipeline, approval)) {
            return Failure{fail(options, environment, "helperUnavailable", *reason)};
        }
        if (outcome.helperFailure) {
            return Failure{fail(options, environment, "helperFailed",
                                smart::helperRequestFailedMessage(volume->deviceName, *outcome.helperFailure))};
        }
        return Failure{fail(options, environment, outcome.driveAsleep ? "driveAsleep" : "noUsableData",
                            noDataMessage(volume->deviceName, outcome.driveAsleep))};
    }
    return Fetched{volume->deviceName, std::move(outcome)};
}

std::int64_t unixNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The rows, and what grew since the baselines when the drive has a history.
int fetchOnce(const SmartOptions& options, Environment& environment) {
    auto fetched = fetchForVolume(options, environment);
    if (!fetched) return fetched.error();
    const auto& outcome = fetched->outcome;
    std::vector<health::Growth> growth;
    const std::string path = options.database ? *options.database : health::HealthHistory::userPath();
    const auto reading = health::driveReadingFromJson(outcome.smartctlJson, unixNow(), fetched->deviceName);
    // Only a history that exists is read: asking for the rows creates no file.
    if (reading && reading->identity.known() && !path.empty() && std::filesystem::exists(path)) {
        if (auto history = openHealthHistory(path)) {
            growth = growthAgainst(**history, reading->identity.key(), reading->snapshot);
        }
    }
    if (options.json) {
        auto document = infoJson(*outcome.info);
        document["growth"] = growthJson(growth);
        printJson(*environment.out, document);
    } else {
        printInfo(*environment.out, *outcome.info);
        printGrowth(*environment.out, growth);
    }
    return kSuccess;
}

std::string noHistoryMessage(const std::string& deviceName) {
    return text::isEnglish() ? fmt::format("No health history of the drive of {} has been recorded.", deviceName)
                             : fmt::format("没有 {} 所在硬盘的健康历史记录。", deviceName);
}

// The readings since --since. The drive is told by its identity when the helper can ask it, else
// by the kernel name it was last recorded under.
int showHistory(const SmartOptions& options, Environment& environment) {
    std::optional<std::chrono::seconds> since;
    if (options.since) {
        since = parseDuration(*options.since);
        if (!since) {
            return fail(
                options, environment, "invalidDuration",
                text::isEnglish()
                    ? fmt::format("--since takes a duration such as 90s, 30m, 12h, 7d or 2w, not {}.", *options.since)
                    : fmt::format("--since 需要 90s、30m、12h、7d 或 2w 这样的时长，而不是 {}。", *options.since));
        }
    }
    auto volume = DiskVolumeResolver::resolve(*options.path, *environment.system.volumes, *environment.system.devices);
    if (!volume.ok()) return fail(options, environment, volume.error().name(), volume.error().description());
    // Asking for a history creates no file.
    const std::string path = options.database ? *options.database : health::HealthHistory::userPath();
    if (!path.empty() && !std::filesystem::exists(path))
        return fail(options, environment, "noHistory", noHistoryMessage(volume->deviceName));
    auto history = openHealthHistory(options.database);
    if (!history) return fail(options, environment, "historyUnavailable", history.error());

    std::optional<health::DriveIdentity> identity;
    {
        auto main = std::make_shared<LoopMainExecutor>();
        CancellationSource cancellation;
        const auto pipeline = SmartPipeline::system(main, RegistrationPolicy{false});
        const auto outcome = fetchSmartInfo(pipeline, *main, volume->deviceName, cancellation);
        if (auto reading = health::driveReadingFromJson(outcome.smartctlJson, unixNow(), volume->deviceName);
            reading && reading->identity.known()) {
            identity = reading->identity;
        }
    }
    if (!identity) {
        if (auto seen = (*history)->driveSeenAs(volume->deviceName); seen && *seen) identity = (*seen)->identity;
    }
    if (!identity) return fail(options, environment, "noHistory", noHistoryMessage(volume->deviceName));
    const std::int64_t from = since ? unixNow() - since->count() : 0;
    auto readings = (*history)->history(identity->key(), from);
    if (!readings) return fail(options, environment, "historyUnavailable", readings.error());
    const auto format = options.json ? HistoryFormat::json : options.csv ? HistoryFormat::csv : HistoryFormat::text;
    printHistory(*environment.out, format, *identity, *readings, growthAgainst(**history, identity->key(), {}));
    return kSuccess;
}

// Records a fresh reading and makes its growth figures the new baselines.
int acknowledgeGrowth(const SmartOptions& options, Environment& environment) {
    auto history = openHealthHistory(options.database);
    if (!history) return fail(options, environment, "historyUnavailable", history.error());
    auto fetched = fetchForVolume(options, environment);
    if (!fetched) return fetched.error();
    const auto reading = health::driveReadingFromJson(fetched->outcome.smartctlJson, unixNow(), fetched->deviceName);
    if (!reading || !reading->identity.known()) {
        return fail(
            options, environment, "noIdentity",
            text::isEnglish()
                ? fmt::format("The drive of {} reports neither a WWN nor a serial number, so it has no history.",
                              fetched->deviceName)
                : fmt::format("{} 所在的硬盘既没有报告 WWN 也没有报告序列号，因此没有历史记录。", fetched->deviceName));
    }
    if (auto recorded = (*history)->record(reading->identity, reading->snapshot); !recorded)
        return fail(options, environment, "historyUnavailable", recorded.error());
    auto growth = (*history)->acknowledge(reading->identity.key(), reading->snapshot.at);
    if (!growth) return fail(options, environment, "historyUnavailable", growth.error());
    if (options.json) {
        printJson(*environment.out, {{"drive", identityJson(reading->identity)}, {"baselines", growthJson(*growth)}});
        return kSuccess;
    }
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto& entry : *growth) {
        rows.emplace_back(health::figureTitle(entry.figure), fmt::format("{}", entry.baseline));
    }
    *environment.out << text::localized("新的基准：", "New baselines:") << '\n';
    printTable(*environment.out, rows);
    return kSuccess;
}

std::string clockText(std::chrono::system_clock::time_point time) {
    return fmt::format("{:%H:%M:%S}", fmt::localtime(std::chrono::system_clock::to_time_t(time)));
}

// The SMART refresh of a monitor selection, printed as it publishes until Ctrl-C.
class WatchSession {
public:
    WatchSession(SmartOptions options, Environment& environment, std::shared_ptr<LoopMainExecutor> main)
        : options_(std::move(options)),
          environment_(environment),
          main_(std::move(main)),
          pipeline_(SmartPipeline::system(main_, RegistrationPolicy{false})) {}

    int run() {
        // Every reading goes into the drive's history; without one, the watch goes on and says so.
        if (auto history = openHealthHistory(options_.database)) history_ = std::move(history).value();
        else *environment_.err << text::terminalLines(history.error()) << std::endl;
        monitor_ = environment_.system.makeMonitor(main_);
        refresh_ = pipeline_.attachRefresh(monitor_, main_);
        refresh_->setRoundObserver(main_->failingTheLoop(
            [this](const std::string& deviceName, SmartRefresh::Round round,
                   const SMARTInfoProvider::Outcome& fetched) { observeRound(deviceName, round, fetched); }));
        subscription_ = monitor_->subscribe(
            main_->failingTheLoop([this](const DiskIOMonitor::State& state) { observe(state); }));
        monitor_->selectVolume(*options_.path);
        try {
            main_->run();
        } catch (...) {
            endRefresh();
            throw;
        }
        endRefresh();
        return status_;
    }

    // A signal, or the output went away (SIGPIPE).
    void interrupt(int signal) { finish(stoppedBy(signal)); }

private:
    // The refresh may be waiting for the main thread (helper registration): the loop serves it
    // until its task has ended.
    void endRefresh() {
        refresh_->cancel();
        while (!refresh_->isFinished()) {
            try {
                main_->runFor(std::chrono::milliseconds(20));
            } catch (...) {
                // The first failure is the one the command reports.
            }
        }
        subscription_.cancel();
    }

    void observe(const DiskIOMonitor::State& state) {
        if (done_) return;
        if (!state.selectedVolume) {
            if (state.errorMessage) {
                fail(options_, environment_, "invalidSelection", *state.errorMessage);
                finish(kFailure);
            }
            return;
        }
        const auto& volume = *state.selectedVolume;
        if (!announced_) {
            announced_ = true;
            *environment_.err << text::terminalText(
                                     text::isEnglish()
                                         ? fmt::format("Watching the SMART data of {} ({}). Press Ctrl-C to stop.",
                                                       volume.displayName, volume.deviceName)
                                         : fmt::format("正在监视 {}（{}）的 SMART 数据。按 Ctrl-C 停止。",
                                                       volume.displayName, volume.deviceName))
                              << std::endl;
            last_ = volume.smartInfo;
            return;
        }
        if (volume.smartInfo == last_) return;
        print(volume.deviceName, volume.smartInfo);
        last_ = volume.smartInfo;
        if (environment_.outputLost()) interrupt(SIGPIPE);
    }

    void print(const std::string& deviceName, const std::optional<DiskSMARTInfo>& info) {
        const auto now = std::chrono::system_clock::now();
        auto& out = *environment_.out;
        ++publications_;
        if (options_.json) {
            printJson(out,
                      ordered_json{{"time", clockText(now)},
                                   {"device", deviceName},
                                   {"smart", info ? infoJson(*info) : ordered_json(nullptr)}},
                      -1);
            return;
        }
        if (!info) {
            out << "[" << clockText(now) << "] "
                << text::localized("SMART 数据已不可用。", "SMART data is no longer available.") << std::endl;
            printedValues_.clear();
            return;
        }
        // The first table in full; afterwards the rows whose values changed.
        std::vector<DiskSMARTInfo::Detail> changed;
        for (const auto& detail : info->details) {
            const auto previous = printedValues_.find(detail.keyPath);
            if (previous == printedValues_.end() || previous->second != detail.value) changed.push_back(detail);
        }
        const bool first = printedValues_.empty();
        printedValues_.clear();
        for (const auto& detail : info->details) printedValues_[detail.keyPath] = detail.value;
        if (first) {
            out << "[" << clockText(now) << "]\n";
            printInfo(out, *info);
        } else if (changed.empty()) {
            out << "[" << clockText(now) << "] "
                << text::localized("已刷新，没有数值变化。", "Refreshed; no value changed.") << '\n';
        } else {
            out << "[" << clockText(now) << "] " << text::localized("已变化：", "Changed:") << '\n';
            printRows(out, changed);
        }
        out << std::flush;
    }

    // After the first round without data, says why when it is the helper's fault and ends.
    void observeRound(const std::string& deviceName, SmartRefresh::Round round,
                      const SMARTInfoProvider::Outcome& fetched) {
        if (history_ && !fetched.smartctlJson.empty()) {
            if (auto error = recordAnswer(*history_, fetched.smartctlJson, deviceName)) {
                *environment_.err << text::terminalLines(*error) << std::endl;
                history_.reset();  // said once
            }
        }
        if (done_ || ++rounds_ > 1 || publications_ > 0) return;
        if (round != SmartRefresh::Round::identical && round != SmartRefresh::Round::published) return;
        if (const auto reason = helperUnavailableReason(pipeline_, approval_)) {
            fail(options_, environment_, "helperUnavailable", *reason);
            finish(kFailure);
            return;
        }
        if (fetched.helperFailure && !fetched.info) {
            fail(options_, environment_, "helperFailed",
                 smart::helperRequestFailedMessage(deviceName, *fetched.helperFailure));
            finish(kFailure);
            return;
        }
        const auto& selected = monitor_->state().selectedVolume;
        if (selected && !selected->smartInfo) {
            *environment_.err << text::terminalLines(noDataMessage(deviceName, false)) << std::endl;
        }
    }

    void finish(int status) {
        if (done_) return;
        done_ = true;
        status_ = status;
        main_->stop();
    }

    SmartOptions options_;
    Environment& environment_;
    std::shared_ptr<LoopMainExecutor> main_;
    SmartPipeline pipeline_;
    ApprovalListener approval_;
    std::shared_ptr<DiskIOMonitor> monitor_;
    std::shared_ptr<SmartRefresh> refresh_;
    std::unique_ptr<health::HealthHistory> history_;
    Subscription subscription_;
    std::optional<DiskSMARTInfo> last_;
    std::map<std::string, std::string> printedValues_;
    bool announced_ = false;
    int rounds_ = 0;
    int publications_ = 0;
    bool done_ = false;
    int status_ = kSuccess;
};

int watch(const SmartOptions& options, Environment& environment) {
    auto main = std::make_shared<LoopMainExecutor>();
    WatchSession* current = nullptr;
    SignalWatcher signals(main, [&current](int signal) {
        if (current != nullptr) current->interrupt(signal);
    });
    WatchSession session(options, environment, main);
    current = &session;
    const int status = session.run();
    current = nullptr;
    return status;
}

}  // namespace

int runSmart(const SmartOptions& options, Environment& environment) {
    if (options.jsonFile) return replay(options, environment);
    if (options.history) return showHistory(options, environment);
    if (options.acknowledge) return acknowledgeGrowth(options, environment);
    if (options.watch) return watch(options, environment);
    return fetchOnce(options, environment);
}

Command addSmartCommand(CLI::App& parent) {
    auto options = std::make_shared<SmartOptions>();
    auto* command = parent.add_subcommand(
        "smart",
        text::localized("显示文件夹所在卷的硬盘 SMART 信息，或重放保存的 smartctl --json 输出",
                        "Show the SMART data of the drive behind a folder, or replay a saved smartctl --json output"));
    auto* path = command->add_option("path", options->path, text::localized("卷上的文件夹", "A folder on the volume"));
    auto* file = command
                     ->add_option("--json-file", options->jsonFile,
                                  text::localized("smartctl --json 的输出文件", "A file with smartctl --json output"))
                     ->type_name("FILE");
    path->excludes(file);
    command->add_flag("--json", options->json, text::localized("以 JSON 输出", "Print JSON"));
    command
        ->add_flag("--watch", options->watch,
                   text::localized("每秒刷新，显示每次发布的变化，直到按下 Ctrl-C",
                                   "Refresh once a second and print every published change until Ctrl-C"))
        ->needs(path);
    auto* history = command
                        ->add_flag(
                            "--history", options->history,
                            text::localized("显示硬盘记录下来的健康历史", "Show the drive's recorded health history"))
                        ->needs(path);
    command
        ->add_option("--since", options->since,
                     text::localized("只显示这段时间以来的记录（90s、30m、12h、7d、2w）",
                                     "Only what was recorded in this last time (90s, 30m, 12h, 7d, 2w)"))
        ->type_name("DURATION")
        ->needs(history);
    command->add_flag("--csv", options->csv, text::localized("以 CSV 输出历史", "Print the history as CSV"))
        ->needs(history);
    command
        ->add_flag(
            "--acknowledge", options->acknowledge,
            text::localized("把不应增长的计数的当前值设为新的基准",
                            "Make the current values of the counters that should never grow their new baselines"))
        ->needs(path)
        ->excludes(history);
    command
        ->add_option("--database", options->database,
                     text::localized("健康历史文件（默认 $XDG_DATA_HOME/vantorix/health.sqlite）",
                                     "The health history file (default $XDG_DATA_HOME/vantorix/health.sqlite)"))
        ->type_name("FILE");
    command->callback([path, file] {
        if (path->count() == 0 && file->count() == 0) {
            throw CLI::RequiredError(text::localized("需要文件夹或 --json-file", "A folder or --json-file is required"),
                                     static_cast<int>(CLI::ExitCodes::RequiredError));
        }
    });
    return {command, [options](Environment& environment) { return runSmart(*options, environment); }};
}

}  // namespace vantorix::cli
