#include <CLI/CLI.hpp>

#include <nlohmann/json.hpp>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "services/Feedback.h"
#include "text/Language.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;
using text::localized;

}  // namespace

int runFeedback(const FeedbackOptions& options, Environment& environment) {
    services::FeedbackForm form{
        services::feedbackTypeFromWire(options.type).value_or(services::FeedbackType::suggestion), options.title,
        options.content, options.email};
    // The same limits as typing into the form: over-long texts are cut, not refused.
    form.applyLimits();

    const auto refuse = [&](std::string_view code, const std::string& message) {
        *environment.err << text::terminalLines(message) << '\n';
        if (options.json) printJsonError(*environment.out, code, message);
        return kFailure;
    };
    // A form that fails the checks is not sent.
    if (auto invalid = services::validationMessage(form)) return refuse("invalidFeedback", *invalid);

    const auto outcome = services::submitFeedback(*environment.system.http, services::ServiceConfiguration::current(),
                                                  form);
    if (!outcome.accepted) return refuse("feedbackNotAccepted", outcome.message);
    if (options.json) {
        printJson(*environment.out, ordered_json{{"accepted", true},
                                                 {"message", outcome.message},
                                                 {"feedbackId", outcome.feedbackId ? ordered_json(*outcome.feedbackId)
                                                                                   : ordered_json(nullptr)}});
    } else {
        *environment.out << text::terminalLines(outcome.message) << '\n';
    }
    return kSuccess;
}

Command addFeedbackCommand(CLI::App& parent) {
    auto options = std::make_shared<FeedbackOptions>();
    auto* command = parent.add_subcommand(
        "feedback", localized("向 Vantorix 的开发者发送建议、问题报告或功能请求",
                              "Send a suggestion, bug report or feature request to the Vantorix developers"));
    command->add_option("--type", options->type, localized("类型", "Type"))
        ->check(CLI::IsMember({"suggestion", "bug", "feature", "other"}))
        ->capture_default_str();
    command->add_option("--title", options->title, localized("标题（5–100 字）", "Title (5–100 characters)"))
        ->required();
    command->add_option("--content", options->content, localized("内容（20–2000 字）", "Content (20–2000 characters)"))
        ->required();
    command->add_option("--email", options->email, localized("联系邮箱（可选）", "Contact Email (optional)"));
    command->add_flag("--json", options->json, localized("以 JSON 输出", "Print JSON"));
    return {command, [options](Environment& environment) { return runFeedback(*options, environment); }};
}

}  // namespace vantorix::cli
