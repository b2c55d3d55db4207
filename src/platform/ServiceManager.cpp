#include "platform/ServiceManager.h"

namespace vantorix {

std::string serviceStatusName(int status) {
    switch (status) {
        case static_cast<int>(ServiceStatus::notRegistered): return "notRegistered";
        case static_cast<int>(ServiceStatus::enabled): return "enabled";
        case static_cast<int>(ServiceStatus::requiresApproval): return "requiresApproval";
        case static_cast<int>(ServiceStatus::notFound): return "notFound";
        default: return std::to_string(status);
    }
}

}  // namespace vantorix
