#include <CLI/CLI.hpp>

#include <cstdlib>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/SignalWatcher.h"
#include "services/ServiceTexts.h"
#include "services/UpdateCheck.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;
using text::localized;
using Status = services::UpdateCheckOutcome::Status;

// A folder of the download's own inside the destination, removed as a whole when the user stops
// the program, so that no half-written file stays behind in Downloads.
class StagingFolder {
public:
    void create(const std::string& inside) {
        std::string pattern = (std::filesystem::path(inside) / ".vantorix-cli-XXXXXX").string();
        std::lock_guard lock(mutex_);
        if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    std::string path() const {
        std::lock_guard lock(mutex_);
        return path_;
    }
    void remove() {
        std::lock_guard lock(mutex_);
        if (path_.empty()) return;
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
        path_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::string path_;
};

int fail(const CheckUpdateOptions& options, Environment& environment, std::string_view code,
         const std::string& message) {
    *environment.err << text::terminalLines(message) << '\n';
    if (options.json) printJsonError(*environment.out, code, message);
    return kFailure;
}

// The outcome's status as JSON names it.
const char* statusName(Status status) {
    switch (status) {
        case Status::updateAvailable: return "updateAvailable";
        case Status::upToDate: return "upToDate";
        case Status::packageManaged: return "packageManaged";
        case Status::failed: break;
    }
    return "failed";
}

}  // namespace

int runCheckUpdate(const CheckUpdateOptions& options, Environment& environment) {
    StagingFolder staging;
    // Ctrl-C cannot interrupt a request that is under way: the program ends at once, after removing
    // what a download has written so far.
    SignalWatcher signals([&staging](int signal) {
        staging.remove();
        std::_Exit(stoppedBy(signal));
    });

    HttpClient& client = *environment.system.http;
    const auto configuration = services::ServiceConfiguration::current();
    const auto outcome = services::checkForUpdate(client, configuration, VANTORIX_VERSION);
    ordered_json document{{"status", nullptr}, {"runningVersion", VANTORIX_VERSION}};

    if (outcome.status == Status::failed || !outcome.prompt) {
        const std::string message = outcome.message.value_or("");
        if (outcome.status == Status::failed) return fail(options, environment, "updateCheckFailed", message);
        // Up to date, or updated by the system's package manager: both are answers, not failures.
        if (options.json) {
            document["status"] = statusName(outcome.status);
            document["message"] = message;
            printJson(*environment.out, document);
        } else {
            *environment.out << text::terminalLines(message) << '\n';
        }
        return kSuccess;
    }

    const services::UpdatePrompt& prompt = *outcome.prompt;
    const std::string found = text::newVersionFound(prompt.version);
    document["version"] = prompt.version;
    document["url"] = prompt.url;
    // The version and the address come from the server: shown safely.
    if (!options.json) {
        *environment.out << text::terminalText(found) << '\n' << text::terminalText(prompt.url) << '\n' << std::flush;
    }
    if (!options.download) {
        if (options.json) {
            document["status"] = statusName(outcome.status);
            document["message"] = found;
            printJson(*environment.out, document);
        }
        return kSuccess;
    }

    const std::string folder = environment.system.downloadsFolder();
    *environment.err << services::downloadingUpdate() << '\n' << std::flush;
    staging.create(folder);
    const auto saved = services::downloadUpdate(client, prompt.url, folder, staging.path());
    staging.remove();
    if (!saved.ok()) return fail(options, environment, "downloadFailed", saved.error());
    if (options.json) {
        document["status"] = "downloaded";
        document["message"] = found;
        document["path"] = saved.value();
        printJson(*environment.out, document);
    } else {
        *environment.out << text::terminalText(saved.value()) << '\n';
    }
    return kSuccess;
}

Command addCheckUpdateCommand(CLI::App& parent) {
    auto options = std::make_shared<CheckUpdateOptions>();
    auto* command = parent.add_subcommand("check-update", localized("向 Vantorix 的网络服务查询是否有新版本",
                                                                    "Ask Vantorix's web service for a newer version"));
    command->add_flag(
        "--download", options->download,
        localized("有新版本时把它下载到“下载”文件夹并显示路径",
                  "When there is a newer version, download it into the Downloads folder and print its path"));
    command->add_flag("--json", options->json, localized("以 JSON 输出", "Print JSON"));
    return {command, [options](Environment& environment) { return runCheckUpdate(*options, environment); }};
}

}  // namespace vantorix::cli
