#include "smart/HelperApprovalTexts.h"

#include <fmt/format.h>

#include "text/Language.h"

namespace vantorix::smart {

std::string helperApprovalTitle() { return text::localized("需要启用后台权限", "Enable Permissions"); }

std::string helperApprovalButton() { return text::localized("我已了解", "Understood"); }

std::string helperApprovalMessage(HelperServiceBackend backend, std::string_view socketPath) {
    const bool english = text::isEnglish();
    if (backend == HelperServiceBackend::external) {
        return english ? fmt::format(
                             "No Vantorix SMART helper running as root answers at {} (VANTORIX_HELPER_SOCKET). "
                             "Start it there as root, then please restart Vantorix.",
                             socketPath)
                       : fmt::format(
                             "{}（VANTORIX_HELPER_SOCKET）处没有以 root 身份运行的 Vantorix SMART 辅助程序。"
                             "请以 root 身份在该处启动它，然后重新启动 Vantorix。",
                             socketPath);
    }
    if (backend == HelperServiceBackend::standalone) {
        return english ? std::string(
                             "Reading SMART data needs the Vantorix SMART helper, which runs with administrator "
                             "rights. This system has no systemd: run Vantorix as root, or have an administrator "
                             "start “vantorix-smartctl-helper --socket PATH” and set VANTORIX_HELPER_SOCKET=PATH. "
                             "Then please restart Vantorix.")
                       : std::string(
                             "读取 SMART 数据需要以管理员权限运行的 Vantorix SMART 辅助程序。此系统没有 systemd："
                             "请以 root 身份运行 Vantorix，或请管理员启动 “vantorix-smartctl-helper --socket PATH” "
                             "并设置 VANTORIX_HELPER_SOCKET=PATH，然后重新启动 Vantorix。");
    }
    // The command stands on a line of its own, so that it can be copied whole.
    return english
               ? std::string(
                     "Reading SMART data needs the Vantorix SMART helper service, which an administrator "
                     "must enable:\n\nsudo systemctl enable --now vantorix-smartctl-helper.socket\n\nAfter "
                     "enabling it, please restart Vantorix.")
               : std::string(
                     "读取 SMART 数据需要 Vantorix SMART 辅助服务，须由管理员启用：\n\n"
                     "sudo systemctl enable --now vantorix-smartctl-helper.socket\n\n启用后，请重新启动 Vantorix。");
}

std::string helperNotInstalledMessage(HelperServiceBackend backend, std::string_view helperPath) {
    if (backend == HelperServiceBackend::systemd) {
        return text::localized("未安装 SMART 辅助服务（vantorix-smartctl-helper.socket）。请重新安装 Vantorix。",
                               "The SMART helper service (vantorix-smartctl-helper.socket) is not installed. Please "
                               "reinstall Vantorix.");
    }
    return text::isEnglish()
               ? fmt::format("The SMART helper program is missing ({}). Please reinstall Vantorix.", helperPath)
               : fmt::format("缺少 SMART 辅助程序（{}）。请重新安装 Vantorix。", helperPath);
}

std::string helperApprovalLine(HelperServiceBackend backend, std::string_view socketPath) {
    return helperApprovalTitle() + text::localized("：", ": ") + helperApprovalMessage(backend, socketPath);
}

std::string helperFailedMessage() {
    return text::localized("SMART 辅助程序无法启用或启动（设置 VANTORIX_LOG=debug 可查看原因）。",
                           "The SMART helper could not be enabled or started (VANTORIX_LOG=debug shows why).");
}

std::string helperRequestFailedMessage(std::string_view deviceName, HelperRequestFailure failure) {
    const bool english = text::isEnglish();
    std::string reason;
    switch (failure) {
        case HelperRequestFailure::timedOut:
            reason = english ? "it did not answer within 5 seconds" : "它没有在 5 秒内应答";
            break;
        case HelperRequestFailure::helperError: reason = english ? "it reported an error" : "它报告了错误"; break;
        case HelperRequestFailure::connectionFailed:
        case HelperRequestFailure::noConnection:
            reason = english ? "the connection to it failed" : "与它的连接失败";
            break;
        case HelperRequestFailure::peerNotRoot:
            reason = english ? "the process at its socket does not run as root, so nothing was asked"
                             : "其套接字处的进程不是以 root 身份运行的，因此没有发出请求";
            break;
        case HelperRequestFailure::brokenStream:
            reason = english ? "it closed the connection before answering" : "它在应答之前关闭了连接";
            break;
        case HelperRequestFailure::malformedReply:
            reason = english ? "its reply was malformed" : "它的应答格式不正确";
            break;
        case HelperRequestFailure::privilegedOperationsDisabled:
        case HelperRequestFailure::helperNotInstalled:
        case HelperRequestFailure::cancelled: reason = english ? "it could not be asked" : "无法向它请求"; break;
    }
    return english
               ? fmt::format("The SMART helper failed to read the SMART data of {}: {} (VANTORIX_LOG=debug shows why).",
                             deviceName, reason)
               : fmt::format("SMART 辅助程序未能读取 {} 的 SMART 数据：{}（设置 VANTORIX_LOG=debug 可查看原因）。",
                             deviceName, reason);
}

std::string privilegedOperationsDisabledMessage(std::string_view reasons) {
    return text::isEnglish()
               ? fmt::format("Privileged operations are disabled here ({}), so SMART data cannot be read.", reasons)
               : fmt::format("此环境已禁用特权操作（{}），因此无法读取 SMART 数据。", reasons);
}

std::string stateText(HelperServiceState state) {
    switch (state) {
        case HelperServiceState::unitNotInstalled: return text::localized("单元未安装", "unit not installed");
        case HelperServiceState::notEnabled: return text::localized("未启用", "not enabled");
        case HelperServiceState::enabled: return text::localized("已启用", "enabled");
        case HelperServiceState::needsAdministrator: return text::localized("需要管理员", "needs an administrator");
    }
    return {};
}

}  // namespace vantorix::smart
