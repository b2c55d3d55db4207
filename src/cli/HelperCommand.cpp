#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "cli/Commands.h"
#include "cli/TextTable.h"
#include "composition/SmartPipeline.h"
#include "concurrency/LoopMainExecutor.h"
#include "smart/HelperApprovalTexts.h"
#include "text/Language.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;
using text::localized;

// The registration as the service manager reports it, without changing anything.
struct HelperState {
    std::string backend;
    std::optional<std::string> definitionPath;
    int status = static_cast<int>(ServiceStatus::notFound);
    RuntimeEnvironment environment;
    std::string socketPath;
    ServiceManager::HelperExecutable executable;
    std::optional<std::string> version;
};

HelperState inspect(const SmartPipeline& pipeline) {
    auto& services = *pipeline.serviceManager;
    HelperState state;
    state.backend = services.backendName();
    state.environment = pipeline.manager->runtimeEnvironment();
    state.definitionPath = services.definitionPath(PrivilegedHelperManager::kHelperDefinitionName);
    if (state.definitionPath) {
        state.status = services.daemonService(PrivilegedHelperManager::kHelperDefinitionName)->status();
    }
    state.socketPath = services.socketPath();
    state.executable = services.helperExecutable();
    if (state.status == static_cast<int>(ServiceStatus::enabled)) state.version = pipeline.client->helperVersion();
    return state;
}

int printStatus(const HelperState& state, const HelperOptions& options, Environment& environment) {
    if (options.json) {
        const auto optional = [](const std::optional<std::string>& value) {
            return value ? ordered_json(*value) : ordered_json(nullptr);
        };
        *environment.out << ordered_json{{"serviceManager", state.backend},
                                         {"status", serviceStatusName(state.status)},
                                         {"definitionPath", optional(state.definitionPath)},
                                         {"allowsPrivilegedOperations", state.environment.allowsPrivilegedOperations},
                                         {"restrictionReasons", state.environment.restrictionReasons},
                                         {"socketPath", state.socketPath},
                                         {"helperPath", state.executable.path},
                                         {"helperPresent", state.executable.exists},
                                         {"helperVersion", optional(state.version)}}
                                .dump(2, ' ', false, ordered_json::error_handler_t::replace)
                         << '\n';
        return kSuccess;
    }
    const std::string none = localized("无", "none");
    const std::string policy = state.environment.allowsPrivilegedOperations
                                   ? localized("允许", "allowed")
                                   : localized("已禁用：", "disabled: ") + state.environment.reasonsText();
    std::string program = state.executable.path.empty() ? localized("由他人运行", "run by someone else") : state.executable.path;
    if (!state.executable.path.empty()) {
        program += state.executable.exists ? "" : localized("（不存在）", " (missing)");
    }
    printTable(*environment.out, {
                                     {localized("服务管理器", "Service manager"), state.backend},
                                     {localized("状态", "Status"), serviceStatusName(state.status)},
                                     {localized("服务定义", "Definition"), state.definitionPath.value_or(none)},
                                     {localized("特权操作", "Privileged operations"), policy},
                                     {localized("套接字", "Socket"), state.socketPath.empty() ? none : state.socketPath},
                                     {localized("辅助程序", "Helper program"), program},
                                     {localized("辅助程序版本", "Helper version"), state.version.value_or(none)},
                                 });
    return kSuccess;
}

int report(const HelperOptions& options, Environment& environment, bool success, const std::string& message) {
    (success ? *environment.out : *environment.err) << message << '\n';
    if (options.json) {
        *environment.out << ordered_json{{"success", success}, {"message", message}}.dump(2, ' ', false,
                                                                                          ordered_json::error_handler_t::replace)
                         << '\n';
    }
    return success ? kSuccess : kFailure;
}

std::string approvalText(const SmartPipeline& pipeline) {
    return smart::helperApprovalLine(pipeline.serviceManager->backendName(), pipeline.serviceManager->socketPath());
}

int enable(const SmartPipeline& pipeline, const HelperOptions& options, Environment& environment) {
    const auto& policy = pipeline.manager->runtimeEnvironment();
    if (!policy.allowsPrivilegedOperations) {
        return report(options, environment, false, smart::privilegedOperationsDisabledMessage(policy.reasonsText()));
    }
    const std::string backend = pipeline.serviceManager->backendName();
    if (backend == "standalone") {
        // Without systemd nothing stays registered: the program starts the helper when it needs it.
        const bool root = ::geteuid() == 0;
        return report(options, environment, root,
                      root ? localized("此系统没有 systemd：以 root 身份运行时，Vantorix 会在需要时自行启动 SMART 辅助程序，无需启用。",
                                       "This system has no systemd: running as root, Vantorix starts the SMART helper "
                                       "itself whenever it needs it; there is nothing to enable.")
                           : approvalText(pipeline));
    }
    if (!pipeline.manager->ensureHelperInstalledIfNeeded()) return report(options, environment, false, approvalText(pipeline));
    return report(options, environment, true, localized("SMART 辅助服务已启用。", "The SMART helper is enabled."));
}

int disable(const SmartPipeline& pipeline, const HelperOptions& options, Environment& environment) {
    auto& services = *pipeline.serviceManager;
    if (services.backendName() != "systemd") {
        return report(options, environment, true,
                      localized("没有已注册的 SMART 辅助服务需要移除。", "There is no registered SMART helper to remove."));
    }
    if (!services.definitionPath(PrivilegedHelperManager::kHelperDefinitionName)) {
        return report(options, environment, false,
                      fmt::format("{} {}", PrivilegedHelperManager::kHelperDefinitionName,
                                  localized("未安装。", "is not installed.")));
    }
    auto removal = services.daemonService(PrivilegedHelperManager::kHelperDefinitionName)->unregisterService();
    if (!removal.ok()) return report(options, environment, false, removal.error().description);
    return report(options, environment, true, localized("SMART 辅助服务已停用。", "The SMART helper is disabled."));
}

}  // namespace

int runHelper(const HelperOptions& options, Environment& environment) {
    auto main = std::make_shared<LoopMainExecutor>();
    const bool changes = options.action != HelperOptions::Action::status;
    const auto pipeline = SmartPipeline::system(main, RegistrationPolicy{changes});
    switch (options.action) {
        case HelperOptions::Action::status: return printStatus(inspect(pipeline), options, environment);
        case HelperOptions::Action::enable: return enable(pipeline, options, environment);
        case HelperOptions::Action::disable: return disable(pipeline, options, environment);
    }
    return kUsage;
}

Command addHelperCommand(CLI::App& parent) {
    auto options = std::make_shared<HelperOptions>();
    auto* command = parent.add_subcommand(
        "helper", localized("查看、启用或停用读取 SMART 数据的特权辅助服务",
                            "Show, enable or disable the privileged helper that reads SMART data"));
    command->require_subcommand(1);
    const std::vector<std::tuple<std::string, HelperOptions::Action, std::string>> actions{
        {"status", HelperOptions::Action::status, localized("显示辅助服务的注册状态", "Show the helper's registration")},
        {"enable", HelperOptions::Action::enable, localized("通过服务管理器注册并启动辅助服务（需要管理员权限）",
                                                            "Register and start the helper through the service manager (needs administrator rights)")},
        {"disable", HelperOptions::Action::disable, localized("停止并移除辅助服务的注册", "Stop the helper and remove its registration")},
    };
    for (const auto& [name, action, description] : actions) {
        auto* sub = command->add_subcommand(name, description);
        sub->add_flag("--json", options->json, localized("以 JSON 输出", "Print JSON"));
        sub->callback([options, action = action] { options->action = action; });
    }
    return {command, [options](Environment& environment) { return runHelper(*options, environment); }};
}

}  // namespace vantorix::cli
