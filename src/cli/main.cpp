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
    monitorCommand->add_option("--csv", monitor.csvPath,
                               text::localized("结束时将图表数据导出为 CSV 文件，并在旁边保存同名 PNG 图表",
                                               "At the end, export the chart data as this CSV file and the chart as a PNG beside it"))
        ->type_name("FILE");

    cli::BenchOptions bench;
    auto* benchCommand = app.add_subcommand(
        "bench", text::localized("对文件夹所在卷运行四阶段性能测试并写出 HTML 报告",
                                 "Run the four-phase performance test on the volume behind a folder and write an HTML report"));
    benchCommand->add_option("path", bench.path, text::localized("卷上的文件夹", "A folder on the volume"))->required();
    benchCommand->add_option("--size", bench.size, text::localized("测试样本大小：full（全盘）或 GB 数，默认 1", "Test Sample Size: full (the whole free space) or a number of GB; 1 by default"))
        ->check(CLI::IsMember({"full", "1", "10", "100", "1000", "10000"}))
        ->default_val("1");
    benchCommand->add_flag("--json", bench.json, text::localized("以 JSON 输出", "Print JSON"));
    std::uint64_t payloadBytes = 0;
    double randomSeconds = 0;
    auto* payloadOption = benchCommand->add_option("--payload-bytes", payloadBytes)->group("");
    auto* randomOption = benchCommand->add_option("--random-seconds", randomSeconds)->check(CLI::PositiveNumber)->group("");

    cli::SmartOptions smart;
    auto* smartCommand = app.add_subcommand(
        "smart", text::localized("重放保存的 smartctl --json 输出并显示 SMART 信息",
                                 "Replay a saved smartctl --json output and show its SMART data"));
    smartCommand->add_option("--json-file", smart.jsonFile, text::localized("smartctl --json 的输出文件", "A file with smartctl --json output"))
        ->required();
    smartCommand->add_flag("--json", smart.json, text::localized("以 JSON 输出", "Print JSON"));

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
        if (*smartCommand) return cli::runSmart(smart, environment);
        if (*benchCommand) {
            if (*payloadOption) bench.payloadBytes = payloadBytes;
            if (*randomOption) bench.randomSeconds = randomSeconds;
            return cli::runBench(bench, environment);
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return cli::kFailure;
    }
    return cli::kUsage;
}
