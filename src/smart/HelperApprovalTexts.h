#pragma once

#include <string>
#include <string_view>

#include "platform/HelperService.h"
#include "smart/SmartctlHelperClient.h"

namespace vantorix::smart {

// The alert (or command-line message) shown when the SMART helper needs an administrator, in the
// current interface language. The message says what to do on this kind of system; `socketPath` is
// the socket the helper is expected at.
std::string helperApprovalTitle();
std::string helperApprovalMessage(HelperServiceBackend backend, std::string_view socketPath);
std::string helperApprovalButton();
// The title and the message as one line, for a terminal.
std::string helperApprovalLine(HelperServiceBackend backend, std::string_view socketPath);

// The helper is not installed: its program (no systemd) or its socket unit (systemd) is missing.
std::string helperNotInstalledMessage(HelperServiceBackend backend, std::string_view helperPath);

// The helper is installed but could not be enabled or started.
std::string helperFailedMessage();

// The helper was asked for the SMART data of `deviceName` and failed.
std::string helperRequestFailedMessage(std::string_view deviceName, HelperRequestFailure failure);

// Why privileged operations are off, with the policy's reasons joined by ", ".
std::string privilegedOperationsDisabledMessage(std::string_view reasons);

// The helper's state as users read it: "enabled", "not enabled", "unit not installed", "needs an
// administrator".
std::string stateText(HelperServiceState state);

}  // namespace vantorix::smart
