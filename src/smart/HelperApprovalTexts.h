#pragma once

#include <string>
#include <string_view>

namespace vantorix::smart {

// The alert (or command-line message) shown when the SMART helper needs an administrator, in the
// current interface language. The message says what to do on this kind of system: `backend` is the
// service manager's backend name ("systemd", "standalone", "external"), `socketPath` the socket the
// helper is expected at.
std::string helperApprovalTitle();
std::string helperApprovalMessage(std::string_view backend, std::string_view socketPath);
std::string helperApprovalButton();
// The title and the message as one line, for a terminal.
std::string helperApprovalLine(std::string_view backend, std::string_view socketPath);

// The helper is not installed: its program (`standalone`) or its service units (`systemd`) are missing.
std::string helperNotInstalledMessage(std::string_view backend, std::string_view helperPath);

// The helper is installed but could not be registered or started.
std::string helperFailedMessage();

// Why privileged operations are off, with the policy's reasons joined by ", ".
std::string privilegedOperationsDisabledMessage(std::string_view reasons);

}  // namespace vantorix::smart
