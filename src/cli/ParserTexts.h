#pragma once

namespace CLI {
class App;
}

namespace vantorix::cli {

// Makes the command-line parser's own texts follow the language rule: the headings and badges of
// every --help (Usage, Options, Positionals, Subcommands, REQUIRED, …), the help flag's
// description, and the messages of parse errors. Call once, after every subcommand is added.
void localizeParser(CLI::App& app);

}  // namespace vantorix::cli
