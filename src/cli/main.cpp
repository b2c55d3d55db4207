#include <CLI/CLI.hpp>

#include <iostream>

#include "cli/Commands.h"
#include "text/Language.h"

using namespace vantorix;

int main(int argc, char** argv) {
    CLI::App app{text::localized("Vantorix：查看并测量一个存储卷", "Vantorix: inspect and measure one storage volume"),
                 "vantorix-cli"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string(VANTORIX_VERSION) + " (" + VANTORIX_BUILD_NUMBER + ")");

    cli::InfoOptions info;
    auto* infoCommand = app.add_subcommand(
        "info", text::localized("显示文件夹所在卷的信息和累计读写计数", "Describe the volume behind a folder and its cumulative I/O counters"));
    infoCommand->add_option("path", info.path, text::localized("卷上的文件夹", "A folder on the volume"))->required();
    infoCommand->add_flag("--json", info.json, text::localized("以 JSON 输出", "Print JSON"));

    cli::MonitorOptions monitor;
    int precision = 1000;
    double duration = 0;
    auto* monitorCommand = app.add_subcommand(
        "monitor", text::localized("监控文件夹所在卷的实时读写", "Watch the live read and write traffic of the volume behind a folder"));
    monitorCommand->add_option("path", monitor.path, text::localized("卷上的文件夹", "A folder on the volume"))->required();
    monitorCommand->add_option("--precision", precision, text::localized("采样间隔（毫秒）", "Sampling interval in milliseconds"))
        ->check(CLI::IsMember({1, 10, 100, 1000}))
        ->default_val(1000);
    auto* durationOption = monitorCommand->add_option(
        "--duration", duration, text::localized("监控时长（秒），默认直到按下 Ctrl-C", "Seconds to monitor; until Ctrl-C when absent"))
        ->check(CLI::PositiveNumber);
    monitorCommand->add_flag("--json", monitor.json, text::localized("每行输出一个 JSON 对象", "Print one JSON object per line"));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : cli::kUsage;
    }

    try {
        auto environment = cli::Environment::system();
        if (*infoCommand) return cli::runInfo(info, environment);
        if (*monitorCommand) {
            monitor.precision = *DiskIOMonitor::precisionFromRawValue(precision);
            if (*durationOption) monitor.duration = duration;
            return cli::runMonitor(monitor, environment);
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return cli::kFailure;
    }
    return cli::kUsage;
}
