#pragma once

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "health/DriveHealth.h"
#include "health/HealthHistory.h"
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

// The switch between the sheet's views: "当前" / "Now" (the rows above) and "历史" / "History".
std::array<std::string, 2> smartSheetViewNames();

// The texts around the history's charts, in the current language.
struct SmartHistoryContent {
    // Whose readings these are and when they were stored.
    std::string note;
    // For each count that grew: "Reallocated sectors grew by 8 since <baseline's time> (baseline
    // 0); first above it on <time>." Else one sentence that none grew since the baselines (with
    // their time), or that the drive reports none of these counts.
    std::vector<std::string> growth;
    bool grew = false;
};
SmartHistoryContent smartHistoryContent(const health::DriveIdentity& drive, const std::vector<health::Growth>& growth);

// While the history is being read.
std::string smartHistoryLoadingNote();
// Without a history to show: none is recorded yet (and how one comes about), or, with `error`,
// the file could not be read.
std::string smartHistoryMissingNote(const std::optional<std::string>& error);

}  // namespace vantorix::dashboard
