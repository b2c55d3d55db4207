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

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : cli::kUsage;
    }

    try {
        auto environment = cli::Environment::system();
        if (*infoCommand) return cli::runInfo(info, environment);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return cli::kFailure;
    }
    return cli::kUsage;
}
