#include "smart/SmartSheetTexts.h"

#include "text/Language.h"

namespace vantorix::smart {

std::string sheetNote() {
    return text::localized("以下信息来自系统的 SMART 报告，用于评估磁盘健康状况。",
                           "The following entries come from the system SMART report and help assess disk health.");
}

std::string overallStatusLabel() { return text::localized("总体状态", "Overall Status"); }

std::string smartCapableLabel() { return text::localized("是否支持 SMART", "SMART Capable"); }

std::string capabilityText(bool capable) {
    return capable ? text::localized("支持", "Supported") : text::localized("不支持", "Not Supported");
}

std::string noDetailsNote() {
    return text::localized("系统未提供额外的 SMART 详细属性。",
                           "The system did not expose additional SMART attributes.");
}

}  // namespace vantorix::smart
