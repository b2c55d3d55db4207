#include "volumes/MonitorError.h"

#include "text/Language.h"
#include "text/Messages.h"

namespace vantorix {

std::string MonitorError::description() const {
    switch (code_) {
        case Code::ioKitMatchingFailed: return text::statisticsMatchingFailed(resultCode_);
        case Code::invalidSelection: return text::localized("请选择一个有效的卷。", "Please select a valid volume.");
        case Code::bsdNameResolutionFailed:
            return text::localized("无法解析所选路径对应的 BSD 名称。", "Failed to resolve the BSD name for the selected path.");
        case Code::statisticsUnavailable:
            return text::localized("无法获取该卷的统计信息。", "Unable to fetch statistics for the selected volume.");
        case Code::monitorStopped: return text::localized("监控已停止。", "Monitoring has been stopped.");
    }
    return {};
}

const char* MonitorError::name() const {
    switch (code_) {
        case Code::ioKitMatchingFailed: return "ioKitMatchingFailed";
        case Code::invalidSelection: return "invalidSelection";
        case Code::bsdNameResolutionFailed: return "bsdNameResolutionFailed";
        case Code::statisticsUnavailable: return "statisticsUnavailable";
        case Code::monitorStopped: return "monitorStopped";
    }
    return "";
}

}  // namespace vantorix
