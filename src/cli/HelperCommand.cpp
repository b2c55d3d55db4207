#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "cli/Commands.h"
#include "cli/JsonOutput.h"
#include "cli/TextTable.h"
#include "composition/SmartPipeline.h"
#include "concurrency/LoopMainExecutor.h"
#include "smart/HelperApprovalTexts.h"
#include "text/Language.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

using ordered_json = nlohmann::ordered_json;
using text::localized;

// The helper's state as the system reports it, without changing anything.
struct HelperState {
    HelperServiceBackend backend = HelperServiceBackend::systemd;
    std::optional<std::string> unitFile;  // systemd only
    HelperServiceState state = HelperServiceState::unitNotInstalled;
    RuntimeEnvironment environment;
    std::string socketPath;
    HelperService::HelperExecutable executable;
    std::optional<std::string> version;
};

HelperState inspect(const SmartPipeline& pipeline) {
    auto& service = *pipeline.helperService;
    HelperState state;
    state.backend = service.backend();
    state.environment = pipeline.manager->runtimeEnvironment();
    if (state.backend == HelperServiceBackend::systemd) state.unitFile = service.definitionPath();
    state.state = service.state();
    state.socketPath = service.socketPath();
    state.executable = service.helperExecutable();
    if (state.state == HelperServiceState::enabled) state.version = pipeline.client->helperVersion();
    return state;
}

std::string backendText(HelperServiceBackend backend) {
    switch (backend) {
        case HelperServiceBackend::systemd: return "systemd";
        case HelperServiceBackend::standalone:
            return localized("无（没有 systemd：由本程序以子进程运行）",
                             "none (no systemd: run by this program as its child)");
        case HelperServiceBackend::external:
            return localized("无（由他人运行，VANTORIX_HELPER_SOCKET）",
                             "none (run by someone else, VANTORIX_HELPER_SOCKET)");
    }
    return {};
}

int printStatus(const HelperState& state, const HelperOptions& options, Environment& environment) {
    if (options.json) {
        const auto optional = [](const std::optional<std::string>& value) {
            return value ? ordered_json(*value) : ordered_json(nullptr);
        };
        printJson(*environment.out,
                  ordered_json{{"serviceManager", backendName(state.backend)},
                               {"status", stateName(state.state)},
                               {"unitFile", optional(state.unitFile)},
                               {"allowsPrivilegedOperations", state.environment.allowsPrivilegedOperations},
                               {"restrictionReasons", state.environment.restrictionReasons},
                               {"socketPath", state.socketPath},
                               {"helperPath", state.executable.path},
                               {"helperPresent", state.executable.exists},
                               {"helperVersion", optional(state.version)}});
        return kSuccess;
    }
    const std::string none = localized("无", "none");
    const std::string policy = state.environment.allowsPrivilegedOperations
                                   ? localized("允许", "allowed")
                                   : localized("已禁用：", "disabled: ") + state.environment.reasonsText();
    std::string program = state.executable.path.empty() ? localized("由他人运行", "run by someone else")
                                                        : state.executable.path;
    if (!state.executable.path.empty()) {
        program += state.executable.exists ? "" : localized("（不存在）", " (missing)");
    }
    printTable(*environment.out,
               {
                   {localized("服务管理器", "Service manager"), backendText(state.backend)},
                   {localized("状态", "Status"), smart::stateText(state.state)},
                   {localized("单元文件", "Unit file"), state.unitFile.value_or(none)},
                   {localized("特权操作", "Privileged operations"), policy},
                   {localized("套接字", "Socket"), state.socketPath.empty() ? none : state.socketPath},
                   {localized("辅助程序", "Helper program"), program},
                   {localized("辅助程序版本", "Helper version"), state.version.value_or(none)},
               });
    return kSuccess;
}

// The outcome of `enable` or `disable`: as text (standard output on success, standard error on
// failure), or with --json as the one document on standard output and the failure's text on
// standard error.
int report(const HelperOptions& options, Environment& environment, bool success, const std::string& message) {
    if (options.json) {
        if (!success) *environment.err << text::terminalLines(message) << '\n';
        printJson(*environment.out, ordered_json{{"success", success}, {"message", message}});
    } else {
        (success ? *environment.out : *environment.err) << text::terminalLines(message) << '\n';
    }
    return success ? kSuccess : kFailure;
}

std::string approvalText(const SmartPipeline& pipeline) {
    return smart::helperApprovalLine(pipeline.helperService->backend(), pipeline.helperService->socketPath());
}

int enable(const SmartPipeline& pipeline, const HelperOptions& options, Environment& environment) {
    const auto& policy = pipeline.manager->runtimeEnvironment();
    if (!policy.allowsPrivilegedOperations) {
        return report(options, environment, false, smart::privilegedOperationsDisabledMessage(policy.reasonsText()));
    }
    if (pipeline.helperService->backend() == HelperServiceBackend::standalone) {
        // Without systemd nothing stays enabled: the program starts the helper when it needs it.
        const bool root = ::geteuid() == 0;
        return report(
            options, environment, root,
            root ? localized(
                       "此系统没有 systemd：以 root 身份运行时，Vantorix 会在需要时自行启动 SMART 辅助程序，无需启用。",
                       "This system has no systemd: running as root, Vantorix starts the SMART helper "
                       "itself whenever it needs it; there is nothing to enable.")
                 : approvalText(pipeline));
    }
    if (!pipeline.manager->ensureHelperInstalledIfNeeded()) {
        if (!pipeline.helperService->definitionPath()) {
            return report(options, environment, false,
                          smart::helperNotInstalledMessage(pipeline.helperService->backend(),
                                                           pipeline.helperService->helperExecutable().path));
        }
        return report(options, environment, false, approvalText(pipeline));
    }
    return report(options, environment, true,
                  pipeline.helperService->backend() == HelperServiceBackend::systemd
                      ? localized("SMART 辅助服务的套接字单元 vantorix-smartctl-helper.socket 已启用。",
                                  "The SMART helper's socket unit vantorix-smartctl-helper.socket is enabled.")
                      : localized("SMART 辅助程序已在运行。", "The SMART helper is running."));
}

int disable(const SmartPipeline& pipeline, const HelperOptions& options, Environment& environment) {
    auto& service = *pipeline.helperService;
    switch (service.backend()) {
        case HelperServiceBackend::standalone:
            return report(
                options, environment, true,
                localized("此系统没有 systemd：没有启用的 SMART 辅助服务需要停用。",
                          "This system has no systemd: no SMART helper is enabled, there is nothing to disable."));
        case HelperServiceBackend::external:
            return report(options, environment, true,
                          fmt::format("{} {}", service.socketPath(),
                                      localized("处的 SMART 辅助程序由他人运行；Vantorix 不会停用它。",
                                                "is a SMART helper someone else runs; Vantorix does not disable it.")));
        case HelperServiceBackend::systemd: break;
    }
    if (!service.definitionPath()) {
        return report(options, environment, false,
                      fmt::format("{} {}", kHelperSocketUnit, localized("未安装。", "is not installed.")));
    }
    auto removal = service.disable();
    if (!removal.ok()) {
        if (removal.error().failure == HelperServiceFailure::needsAdministrator) {
            return report(
                options, environment, false,
                localized(
                    "停用 SMART 辅助服务需要管理员权限：sudo systemctl disable --now vantorix-smartctl-helper.socket",
                    "Disabling the SMART helper needs an administrator: sudo systemctl disable --now "
                    "vantorix-smartctl-helper.socket"));
        }
        return report(options, environment, false, removal.error().description);
    }
    return report(options, environment, true,
                  localized("SMART 辅助服务的套接字单元 vantorix-smartctl-helper.socket 已停用并停止。",
                            "The SMART helper's socket unit vantorix-smartctl-helper.socket is disabled and stopped."));
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
        "helper",
        localized("查看、启用或停用读取 SMART 数据的特权辅助服务（systemd 套接字单元 vantorix-smartctl-helper.socket）",
                  "Show, enable or disable the privileged helper that reads SMART data (the systemd socket "
                  "unit vantorix-smartctl-helper.socket)"));
    command->require_subcommand(1);
    const std::vector<std::tuple<std::string, HelperOptions::Action, std::string>> actions{
        {"status", HelperOptions::Action::status,
         localized("显示辅助服务是否已安装、已启用", "Show whether the helper is installed and enabled")},
        {"enable", HelperOptions::Action::enable,
         localized(
             "启用并启动辅助服务的套接字单元（需要管理员权限；非 root 时通过 pkexec 请求）",
             "Enable and start the helper's socket unit (needs administrator rights; asks through pkexec when not root)")},
        {"disable", HelperOptions::Action::disable,
         localized("停用并停止辅助服务的套接字单元", "Disable and stop the helper's socket unit")},
    };
    for (const auto& [name, action, description] : actions) {
        auto* sub = command->add_subcommand(name, description);
        sub->add_flag("--json", options->json, localized("以 JSON 输出", "Print JSON"));
        sub->callback([options, action = action] { options->action = action; });
    }
    return {command, [options](Environment& environment) { return runHelper(*options, environment); }};
}

}  // namespace vantorix::cli
