#include <CLI/CLI.hpp>

#include <iostream>
#include <vector>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/ParserTexts.h"
#include "text/Language.h"

using namespace vantorix;

int main(int argc, char** argv) {
    CLI::App app{text::localized("Vantorix：查看并测量一个存储卷", "Vantorix: inspect and measure one storage volume"),
                 "vantorix-cli"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("vantorix-cli ") + VANTORIX_VERSION + " (build " + VANTORIX_BUILD_NUMBER + ")",
                         text::localized("显示程序版本并退出", "Display program version information and exit"));

    const std::vector<cli::Command> commands{cli::addInfoCommand(app), cli::addMonitorCommand(app),
                                             cli::addBenchCommand(app), cli::addSmartCommand(app),
                                             cli::addHelperCommand(app), cli::addCheckUpdateCommand(app),
                                             cli::addFeedbackCommand(app), cli::addServeCommand(app)};
    cli::localizeParser(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : cli::kUsage;
    }

    const cli::Command* chosen = nullptr;
    for (const auto& command : commands) {
        if (command.app->parsed()) chosen = &command;
    }
    if (chosen == nullptr) return cli::kUsage;
    try {
        auto environment = cli::Environment::standard();
        return chosen->run(environment);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        // A command asked for JSON still gets its failure as JSON.
        const auto* json = chosen->app->get_option_no_throw("--json");
        if (json != nullptr && json->count() > 0) cli::printJsonError(std::cout, "unexpectedError", error.what());
        return cli::kFailure;
    }
}
