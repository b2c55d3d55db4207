#include "volumes/MonitorError.h"

#include "text/Language.h"
#include "text/Messages.h"
#include "text/SystemError.h"

namespace vantorix {

std::string MonitorError::description() const {
    switch (code_) {
        case Code::sysfsReadFailed: return text::sysfsReadFailed(detail_);
        case Code::invalidSelection: return text::localized("请选择一个有效的卷。", "Please select a valid volume.");
        case Code::blockDeviceNotFound: {
            const std::string message = text::localized("无法找到所选路径对应的块设备。",
                                                        "Failed to find the block device of the selected path.");
            return systemError_ != 0 ? text::withSystemError(message, systemError_) : message;
        }
        case Code::statisticsUnavailable:
            return text::localized("无法获取该卷的统计信息。", "Unable to fetch statistics for the selected volume.");
        case Code::monitorStopped: return text::localized("监控已停止。", "Monitoring has been stopped.");
    }
    return {};
}

const char* MonitorError::name() const {
    switch (code_) {
        case Code::sysfsReadFailed: return "sysfsReadFailed";
        case Code::invalidSelection: return "invalidSelection";
        case Code::blockDeviceNotFound: return "blockDeviceNotFound";
        case Code::statisticsUnavailable: return "statisticsUnavailable";
        case Code::monitorStopped: return "monitorStopped";
    }
    return "";
}

}  // namespace vantorix
