#pragma once

#include <string>

namespace vantorix::smart {

// The fixed texts that accompany SMART data wherever it is shown, in the current interface language.
// (The title with the volume name is text::smartSheetTitle.)
std::string sheetNote();
std::string overallStatusLabel();
std::string smartCapableLabel();
std::string capabilityText(bool capable);  // "Supported" / "Not Supported"
std::string noDetailsNote();

}  // namespace vantorix::smart
