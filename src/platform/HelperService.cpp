#include "platform/HelperService.h"

namespace vantorix {

std::string_view backendName(HelperServiceBackend backend) {
    switch (backend) {
        case HelperServiceBackend::systemd: return "systemd";
        case HelperServiceBackend::standalone: return "standalone";
        case HelperServiceBackend::external: return "external";
    }
    return {};
}

std::string_view stateName(HelperServiceState state) {
    switch (state) {
        case HelperServiceState::unitNotInstalled: return "unitNotInstalled";
        case HelperServiceState::notEnabled: return "notEnabled";
        case HelperServiceState::enabled: return "enabled";
        case HelperServiceState::needsAdministrator: return "needsAdministrator";
    }
    return {};
}

std::string_view stateDescription(HelperServiceState state) {
    switch (state) {
        case HelperServiceState::unitNotInstalled: return "unit not installed";
        case HelperServiceState::notEnabled: return "not enabled";
        case HelperServiceState::enabled: return "enabled";
        case HelperServiceState::needsAdministrator: return "needs an administrator";
    }
    return {};
}

std::string_view failureName(HelperServiceFailure failure) {
    switch (failure) {
        case HelperServiceFailure::needsAdministrator: return "needs an administrator";
        case HelperServiceFailure::commandFailed: return "command failed";
        case HelperServiceFailure::helperDidNotStart: return "helper did not start";
        case HelperServiceFailure::notManagedHere: return "not managed here";
    }
    return {};
}

}  // namespace vantorix
