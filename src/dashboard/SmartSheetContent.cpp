#include "dashboard/SmartSheetContent.h"

#include "smart/SmartSheetTexts.h"
#include "text/Language.h"
#include "text/Messages.h"

namespace vantorix::dashboard {

SmartSheetContent smartSheetContent(const SmartSheetPayload& payload) {
    SmartSheetContent sheet;
    sheet.title = text::smartSheetTitle(payload.volumeName);
    sheet.note = smart::sheetNote();
    const auto& info = payload.info;
    if (info.overallStatus && !info.overallStatus->empty()) {
        sheet.summaryRows.emplace_back(smart::overallStatusLabel(), *info.overallStatus);
    }
    if (info.isCapable)
        sheet.summaryRows.emplace_back(smart::smartCapableLabel(), smart::capabilityText(*info.isCapable));
    sheet.detailRows.reserve(info.details.size());
    for (const auto& detail : info.details) sheet.detailRows.emplace_back(detail.displayName, detail.value);
    if (sheet.detailRows.empty()) sheet.emptyNote = smart::noDetailsNote();
    sheet.closeButton = text::localized("好", "OK");
    return sheet;
}

}  // namespace vantorix::dashboard
