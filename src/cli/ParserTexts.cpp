#include "cli/ParserTexts.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <string_view>

#include "text/Language.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

using text::localized;

// CLI11's own words for its headings and badges, and what a reader of each language sees.
struct Label {
    const char* key;
    const char* chinese;
    const char* english;
};
constexpr Label kLabels[] = {
    {"Usage", "用法", "Usage"},
    {"OPTIONS", "选项", "OPTIONS"},
    {"SUBCOMMAND", "子命令", "SUBCOMMAND"},
    {"SUBCOMMANDS", "子命令", "SUBCOMMANDS"},
    {"Positionals", "位置参数", "Positionals"},
    {"REQUIRED", "必需", "REQUIRED"},
    {"Needs", "需要", "Needs"},
    {"Excludes", "排除", "Excludes"},
    {"Env", "环境变量", "Env"},
};
// The groups CLI11 puts options and subcommands in unless told otherwise.
constexpr std::string_view kDefaultOptionGroup = "Options";
constexpr std::string_view kDefaultSubcommandGroup = "Subcommands";

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }
bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// What follows the first ": " (the arguments, the validator's words), or nothing.
std::string_view afterColon(std::string_view text) {
    const auto colon = text.find(": ");
    return colon == std::string_view::npos ? std::string_view() : text.substr(colon + 2);
}

// A validator's complaint about one value in the reader's language, when CLI11's English is
// recognised: "7 not in {1,10,100,1000}" (IsMember). The program's own checks speak the reader's
// language already.
std::string validatorText(std::string_view message) {
    if (const auto set = message.find(" not in {"); set != std::string_view::npos && !text::isEnglish()) {
        return std::string(message.substr(0, set)) + " 不是可选的值之一：" + std::string(message.substr(set + 8));
    }
    return std::string(message);
}

// A parse error's message in the reader's language, built from the parts of CLI11's English
// message; CLI11's English itself where its form is not known.
std::string errorText(const CLI::Error& error) {
    const std::string name = error.get_name();
    const std::string_view what = error.what();
    if (name == "ValidationError") {
        const auto colon = what.find(": ");
        // A hidden option has no name here: its check names it.
        if (colon == 0) return validatorText(what.substr(2));
        if (colon != std::string_view::npos) {
            return std::string(what.substr(0, colon)) + localized("：", ": ") + validatorText(what.substr(colon + 2));
        }
    }
    if (text::isEnglish()) return std::string(what);
    // Extra arguments are reported under the name of the command that got them.
    if (startsWith(what, "The following argument") && what.find(" not expected: ") != std::string_view::npos) {
        return "多余的参数：" + std::string(afterColon(what));
    }
    if (name == "RequiredError") {
        if (what == "A subcommand is required") return "需要一个子命令";
        if (startsWith(what, "Requires at least ") && endsWith(what, " subcommands")) {
            return "至少需要 " + std::string(what.substr(18, what.size() - 18 - 12)) + " 个子命令";
        }
        if (endsWith(what, " is required")) return "缺少必需的参数：" + std::string(what.substr(0, what.size() - 12));
    }
    if (name == "ConversionError" && startsWith(what, "Could not convert: ")) {
        return "无法转换：" + std::string(afterColon(what));
    }
    if (name == "ArgumentMismatch") {
        // "--listen: 1 required TEXT missing"
        const auto colon = what.find(": ");
        const auto required = what.find(" required ");
        if (colon != std::string_view::npos && required != std::string_view::npos && required > colon &&
            endsWith(what, " missing")) {
            const auto type = what.substr(required + 10, what.size() - required - 10 - 8);
            return std::string(what.substr(0, colon)) + "：缺少 " +
                   std::string(what.substr(colon + 2, required - colon - 2)) + " 个 " + std::string(type) + " 值";
        }
        return "参数个数不对：" + std::string(what);
    }
    if (name == "RequiresError") {
        const auto needs = what.find(" requires ");
        if (needs != std::string_view::npos) {
            return std::string(what.substr(0, needs)) + " 需要与 " + std::string(what.substr(needs + 10)) + " 一起使用";
        }
    }
    if (name == "ExcludesError") {
        const auto excludes = what.find(" excludes ");
        if (excludes != std::string_view::npos) {
            return std::string(what.substr(0, excludes)) + " 不能与 " + std::string(what.substr(excludes + 10)) +
                   " 一起使用";
        }
    }
    return std::string(what);
}

// CLI11's formatter with the headings in the reader's language; in Chinese they end in a
// full-width colon, as every Chinese text does.
class LocalizedFormatter : public CLI::Formatter {
public:
    LocalizedFormatter() {
        for (const auto& label : kLabels) this->label(label.key, localized(label.chinese, label.english));
    }

    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
        std::string help = CLI::Formatter::make_help(app, std::move(name), mode);
        if (text::isEnglish()) return help;
        for (const std::string heading : {"用法", "位置参数", "选项", "子命令"}) {
            for (auto at = help.find(heading + ":"); at != std::string::npos; at = help.find(heading + ":", at)) {
                if (at != 0 && help[at - 1] != '\n') {
                    at += heading.size();
                    continue;
                }
                const bool spaced = at + heading.size() + 1 < help.size() && help[at + heading.size() + 1] == ' ';
                help.replace(at + heading.size(), spaced ? 2 : 1, "：");
            }
        }
        return help;
    }
};

std::string failureMessage(const CLI::App* app, const CLI::Error& error) {
    // The arguments it quotes are shown safely: they may be file names.
    std::string message = text::terminalText(errorText(error)) + "\n";
    if (const auto* help = app->get_help_ptr()) {
        message += localized("运行时加上 " + help->get_name() + " 可查看更多信息。",
                             "Run with " + help->get_name() + " for more information.") +
                   "\n";
    }
    return message;
}

// Every command and subcommand: the formatter, the help flag, the default option group, the
// subcommand group.
void localizeCommand(CLI::App& command, const std::shared_ptr<CLI::Formatter>& formatter,
                     const std::string& optionGroup, const std::string& subcommandGroup,
                     const std::string& helpDescription) {
    command.formatter(formatter);
    if (auto* help = command.get_help_ptr()) help->description(helpDescription);
    for (auto* option : command.get_options([](CLI::Option*) { return true; })) {
        if (option->get_group() == kDefaultOptionGroup) option->group(optionGroup);
    }
    for (auto* sub : command.get_subcommands([](CLI::App*) { return true; })) {
        if (sub->get_group() == kDefaultSubcommandGroup) sub->group(subcommandGroup);
        localizeCommand(*sub, formatter, optionGroup, subcommandGroup, helpDescription);
    }
}

}  // namespace

void localizeParser(CLI::App& app) {
    // One formatter serves the program and all its subcommands.
    localizeCommand(app, std::make_shared<LocalizedFormatter>(), localized("选项", "Options"),
                    localized("子命令", "Subcommands"),
                    localized("显示此帮助信息并退出", "Print this help message and exit"));
    app.failure_message(failureMessage);
}

}  // namespace vantorix::cli
