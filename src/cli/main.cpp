#include <CLI/CLI.hpp>

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/ParserTexts.h"
#include "cli/StandardStreams.h"
#include "text/Language.h"
#include "text/SystemError.h"
#include "text/TerminalText.h"

using namespace vantorix;

namespace {

// A failure the command did not turn into a message itself (an exception on the main thread):
// said on standard error, and with --json as the error object.
int unexpectedFailure(const cli::Command& command, const std::string& what) {
    const std::string message = text::localized("内部错误：", "Internal error: ") + what;
    cli::standardError() << text::terminalLines(message) << '\n';
    const auto* json = command.app->get_option_no_throw("--json");
    if (json != nullptr && json->count() > 0) cli::printJsonError(cli::standardOutput(), "unexpectedError", message);
    return cli::kFailure;
}

// A command stopped by a signal, its cleaning up done, ends as that signal ends a program: its
// parent sees it killed by the signal (status 128 + number in a shell), so that a script stops as
// after Ctrl-C and a service manager takes SIGTERM as a clean stop. SIGQUIT's default action
// would dump core: it gets the exit status alone.
[[noreturn]] void endStoppedBy(int signal) {
    cli::standardOutput().flush();
    if (signal != SIGQUIT) {
        if (std::signal(signal, SIG_DFL) == SIG_ERR) std::_Exit(cli::stoppedBy(signal));
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        (void)std::raise(signal);  // returns only when the signal did not end the program
    }
    std::_Exit(cli::stoppedBy(signal));
}

int run(int argc, char** argv) {
    // A reader that goes away shows as a failed write (EPIPE): the command stops its work cleanly
    // instead of dying in the middle of it. (Ignoring a valid signal cannot fail.)
    (void)std::signal(SIGPIPE, SIG_IGN);

    CLI::App app{text::localized("Vantorix：查看并测量一个存储卷", "Vantorix: inspect and measure one storage volume"),
                 "vantorix-cli"};
    app.require_subcommand(1);
    app.set_version_flag("--version",
                         std::string("vantorix-cli ") + VANTORIX_VERSION + " (build " + VANTORIX_BUILD_NUMBER + ")",
                         text::localized("显示程序版本并退出", "Display program version information and exit"));

    const std::vector<cli::Command> commands{cli::addInfoCommand(app),     cli::addMonitorCommand(app),
                                             cli::addBenchCommand(app),    cli::addSmartCommand(app),
                                             cli::addHelperCommand(app),   cli::addCheckUpdateCommand(app),
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
    int status = cli::kFailure;
    try {
        auto environment = cli::Environment::standard();
        status = chosen->run(environment);
    } catch (const std::exception& error) {
        status = unexpectedFailure(*chosen, error.what());
    } catch (...) {
        status = unexpectedFailure(*chosen, "unknown exception");
    }

    auto& out = cli::standardOutput();
    out.flush();
    const int failure = cli::writeFailure(out) != 0 ? cli::writeFailure(out) : cli::writeFailure(cli::standardError());
    if (failure == EPIPE && status < cli::stoppedBy(0)) {
        status = cli::stoppedBy(SIGPIPE);
    } else if (failure != 0 && status == cli::kSuccess) {
        cli::standardError() << text::terminalLines(text::withSystemError(
                                    text::localized("无法写出结果。", "Writing the output failed."), failure))
                             << '\n';
        status = cli::kFailure;
    }
    if (status > cli::stoppedBy(0)) endStoppedBy(status - cli::stoppedBy(0));
    return status;
}

}  // namespace

// What can throw before a command runs is building the parser, which fails only without memory.
int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (...) {
        return cli::kFailure;
    }
}
