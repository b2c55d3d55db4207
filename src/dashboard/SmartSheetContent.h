#pragma once

#include <string>
#include <utility>
#include <vector>

#include "smart/DiskSMARTInfo.h"
#include "util/Uuid.h"

namespace vantorix::dashboard {

// What the SMART sheet is opened with.
struct SmartSheetPayload {
    Uuid id = Uuid::make();
    std::string volumeName;
    DiskSMARTInfo info;
};

// The sheet from top to bottom, in the current language: title, note, up to two summary rows
// (overall status when present and not empty, capability when known), the detail rows in list
// order or, without any, a note saying so, and the closing button.
struct SmartSheetContent {
    std::string title;
    std::string note;
    std::vector<std::pair<std::string, std::string>> summaryRows;
    std::vector<std::pair<std::string, std::string>> detailRows;
    std::string emptyNote;  // shown only when detailRows is empty
    std::string closeButton;
};

SmartSheetContent smartSheetContent(const SmartSheetPayload& payload);

}  // namespace vantorix::dashboard
