#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "cli/Commands.h"
#include "cli/OptionChecks.h"
#include "cli/SignalWatcher.h"
#include "composition/SmartPipeline.h"
#include "concurrency/Cancellation.h"
#include "concurrency/LoopMainExecutor.h"
#include "concurrency/RepeatingTimer.h"
#include "concurrency/SerialQueue.h"
#include "exporter/Exposition.h"
#include "exporter/MetricsCollector.h"
#include "exporter/MetricsServer.h"
#include "exporter/SmartHealth.h"
#include "health/HealthHistory.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

using text::localized;

// Mounted file systems are looked for again this often, so a volume that comes is watched and
// one that goes is dropped.
constexpr std::chrono::seconds kVolumeRefreshInterval{15};

const char* const kLandingPage =
    "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Vantorix exporter</title></head>\n"
    "<body><h1>Vantorix exporter</h1><p><a href=\"/metrics\">Metrics</a></p></body></html>\n";

exporter::MetricsServer::Response answer(exporter::MetricsCollector& collector,
                                         const exporter::MetricsServer::Request& request) {
    if (request.path == "/metrics") {
        const auto format = exporter::negotiateFormat(request.accept);
        const auto exposition = collector.scrape(request.peer + " " + request.userAgent);
        return {200, std::string(exporter::contentType(format)), exporter::render(exposition, format)};
    }
    if (request.path == "/") return {200, "text/html; charset=utf-8", kLandingPage};
    return {404, "text/plain; charset=utf-8", "Not Found\n"};
}

// What the collector watches: the volumes of the given folders (every mounted block-device file
// system when none is given), sampled at the chosen precision, and their drives' SMART figures,
// read through `pipeline` until `cancellation` is cancelled.
exporter::MetricsCollector::Dependencies collectorDependencies(const ServeOptions& options, Environment& environment,
                                                               const SmartPipeline& pipeline,
                                                               CancellationSource& cancellation) {
    exporter::MetricsCollector::Dependencies dependencies;
    dependencies.devices = environment.system.devices;
    dependencies.files = environment.system.volumes;
    dependencies.paths = options.volumes;
    dependencies.mountPoints = environment.system.blockDeviceMountPoints;
    dependencies.samplingInterval = DiskIOMonitor::timerInterval(options.precision);
    dependencies.smartInterval = options.smartInterval;
    dependencies.smart = [&pipeline, &cancellation](const std::string& device) {
        const auto outcome = pipeline.provider->fetch(device, cancellation.token());
        exporter::MetricsCollector::SmartReading reading;
        reading.driveAsleep = outcome.driveAsleep;
        reading.helperFailed = outcome.helperFailure.has_value();
        if (outcome.info) reading.figures = exporter::smartFiguresFromJson(outcome.smartctlJson, 0, device);
        return reading;
    };
    // Without its history the exporter still serves every figure but the growth.
    const auto path = options.healthDatabase.empty() ? health::HealthHistory::servicePath() : options.healthDatabase;
    if (auto history = health::HealthHistory::open(path)) {
        dependencies.history = std::move(history).value();
    } else {
        *environment.err << text::terminalLines(history.error() +
                                                localized("不记录健康历史，照常导出。", " Serving without it."))
                         << '\n';
    }
    return dependencies;
}

// Samples the volumes every `interval`, starting now, and looks for mounted volumes again every
// kVolumeRefreshInterval.
void startSampling(RepeatingTimer& sampling, exporter::MetricsCollector& collector, std::chrono::nanoseconds interval,
                   DiskIOMonitor::SamplingPrecision precision) {
    const auto refreshEvery = std::max<std::int64_t>(1, kVolumeRefreshInterval / interval);
    sampling.setHandler([&collector, ticks = std::int64_t{0}, refreshEvery]() mutable {
        if (++ticks % refreshEvery == 0) collector.refreshVolumes();
        collector.sample(RepeatingTimer::Clock::now());
    });
    sampling.schedule(RepeatingTimer::Duration::zero(), interval, DiskIOMonitor::timerLeeway(precision));
    sampling.resume();
}

}  // namespace

std::optional<std::pair<std::string, std::uint16_t>> parseListenAddress(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string host(text.substr(0, colon));
    const auto portText = text.substr(colon + 1);
    unsigned port = 0;
    if (portText.empty() || portText.size() > 5 || portText.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    port = static_cast<unsigned>(std::stoul(std::string(portText)));
    if (port > 65535) return std::nullopt;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host.empty()) host = "127.0.0.1";
    return std::pair{host, static_cast<std::uint16_t>(port)};
}

int runServe(const ServeOptions& options, Environment& environment) {
    auto& err = *environment.err;
    const auto listen = parseListenAddress(options.listen);
    if (!listen) {
        const auto pattern = localized("无效的监听地址：{}（应为 地址:端口，例如 127.0.0.1:9842）",
                                       "Invalid listen address: {} (expected ADDRESS:PORT, such as 127.0.0.1:9842)");
        err << text::terminalText(fmt::format(fmt::runtime(pattern), options.listen)) << '\n';
        return kUsage;
    }

    auto main = std::make_shared<LoopMainExecutor>();
    int stopSignal = 0;
    SignalWatcher signals(main, [&main, &stopSignal](int signal) {
        stopSignal = signal;
        main->stop();
    });
    const auto pipeline = SmartPipeline::system(main, RegistrationPolicy{false});
    CancellationSource smartCancellation;

    const auto dependencies = collectorDependencies(options, environment, pipeline, smartCancellation);
    exporter::MetricsCollector collector(dependencies);
    const std::size_t watched = collector.refreshVolumes();
    if (watched == 0 && !options.volumes.empty()) {
        err << localized("指定的文件夹都不在可监控的卷上。",
                         "None of the given folders is on a volume that can be watched.")
            << '\n';
        return kFailure;
    }

    exporter::MetricsServer::Options serverOptions;
    serverOptions.address = listen->first;
    serverOptions.port = listen->second;
    auto server = exporter::MetricsServer::start(
        serverOptions,
        [&collector](const exporter::MetricsServer::Request& request) { return answer(collector, request); });
    if (!server) {
        const auto pattern = localized("无法监听 {}。", "Cannot listen on {}.");
        err << text::terminalLines(fmt::format(fmt::runtime(pattern), server.error())) << '\n';
        return kFailure;
    }
    std::unique_ptr<exporter::MetricsServer> http = std::move(server).value();

    SerialQueue samplingQueue("com.vantorix.exporter.sampling", QualityOfService::utility);
    RepeatingTimer sampling(samplingQueue);
    startSampling(sampling, collector, dependencies.samplingInterval, options.precision);

    SerialQueue smartQueue("com.vantorix.exporter.smart", QualityOfService::background);
    RepeatingTimer smart(smartQueue);
    smart.setHandler([&collector] { collector.refreshSmart(RepeatingTimer::Clock::now()); });
    // Each drive is due once per SMART interval; the timer looks every 5 s, or as often as that.
    const auto smartTick = std::min<std::chrono::nanoseconds>(std::chrono::seconds(5), options.smartInterval);
    smart.schedule(RepeatingTimer::Duration::zero(), smartTick, smartTick / 5);
    smart.resume();

    err << text::exportingMetrics(watched, http->address()) << std::endl;
    // Standard error gone from the start is output gone: main() ends the program as for SIGPIPE.
    if (!environment.outputLost()) main->run();

    smartCancellation.cancel();
    smart.cancel();
    sampling.cancel();
    http.reset();
    return stopSignal != 0 ? stoppedBy(stopSignal) : kFailure;
}

Command addServeCommand(CLI::App& parent) {
    struct Parsed {
        ServeOptions options;
        int precision = 1000;
        double smartSeconds = 60;
    };
    auto parsed = std::make_shared<Parsed>();
    auto* command = parent.add_subcommand(
        "serve", localized("以 Prometheus 格式在 HTTP 上导出各卷的读写与 SMART 指标",
                           "Export the volumes' traffic and SMART figures over HTTP for Prometheus"));
    command
        ->add_option(
            "--listen", parsed->options.listen,
            localized("监听的 地址:端口（默认只在本机回环上）", "ADDRESS:PORT to listen on (loopback by default)"))
        ->default_val(parsed->options.listen);
    command
        ->add_option("--precision", parsed->precision,
                     localized("采样间隔（毫秒）", "Sampling interval in milliseconds"))
        ->check(CLI::IsMember({1, 10, 100, 1000}))
        ->default_val(1000);
    command
        ->add_option(
            "--volume", parsed->options.volumes,
            localized("要监控的卷上的文件夹，可重复；默认是所有已挂载的块设备文件系统",
                      "A folder on a volume to watch, repeatable; every mounted block-device file system by default"))
        ->type_name("PATH");
    command
        ->add_option("--health-database", parsed->options.healthDatabase,
                     localized("记录驱动器健康历史的 SQLite 文件（默认 $STATE_DIRECTORY 或 /var/lib/vantorix 下的 "
                               "health.sqlite）",
                               "The SQLite file of the drives' health history (health.sqlite in $STATE_DIRECTORY "
                               "or /var/lib/vantorix by default)"))
        ->type_name("FILE");
    // For tests: how often a drive's SMART figures are refreshed.
    command->add_option("--smart-interval", parsed->smartSeconds)
        ->check(namingHiddenOption("--smart-interval", secondsCheck(1, true, 86400)))
        ->group("");
    return {command, [parsed](Environment& environment) {
                parsed->options.precision = *DiskIOMonitor::precisionFromRawValue(parsed->precision);
                parsed->options.smartInterval = std::chrono::duration_cast<std::chrono::nanoseconds>(
                    std::chrono::duration<double>(parsed->smartSeconds));
                return runServe(parsed->options, environment);
            }};
}

}  // namespace vantorix::cli
