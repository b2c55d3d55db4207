#include <CLI/CLI.hpp>

#include <iostream>
#include <vector>

#include "cli/Commands.h"
#include "text/Language.h"

using namespace vantorix;

int main(int argc, char** argv) {
    CLI::App app{text::localized("Vantorix：查看并测量一个存储卷", "Vantorix: inspect and measure one storage volume"),
                 "vantorix-cli"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("vantorix-cli ") + VANTORIX_VERSION + " (build " + VANTORIX_BUILD_NUMBER + ")");

    const std::vector<cli::Command> commands{cli::addInfoCommand(app), cli::addMonitorCommand(app),
                                             cli::addBenchCommand(app), cli::addSmartCommand(app),
                                             cli::addHelperCommand(app), cli::addCheckUpdateCommand(app),
                                             cli::addFeedbackCommand(app), cli::addServeCommand(app)};
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : cli::kUsage;
    }

    try {
        auto environment = cli::Environment::system();
        for (const auto& command : commands) {
            if (command.app->parsed()) return command.run(environment);
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return cli::kFailure;
    }
    return cli::kUsage;
}
