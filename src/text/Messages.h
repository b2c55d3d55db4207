#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vantorix::text {

// Texts that carry values, each in the language chosen by isEnglish() at the moment of the call.
// Chinese texts use full-width punctuation and no space after a colon; numbers are written in plain
// decimal without grouping.

std::string newVersionFound(std::string_view version);
std::string downloadFailed(std::string_view reason);
std::string updateCheckFailed(std::string_view reason);
std::string feedbackAccepted(std::string_view feedbackId);
std::string feedbackServerError(int statusCode);
std::string sysfsReadFailed(std::string_view detail);
std::string reportExportFailed(std::string_view reason);
std::string automaticReportExportFailed(std::string_view reason);
std::string automaticReportSaved(std::string_view path);
std::string randomTestSummary(std::string_view blockSizeText, std::uint64_t operationCount);
std::string chartExportSaved(std::string_view csvPath, std::string_view pngPath);
std::string chartExportFailed(std::string_view reason);
std::string latencyExportSaved(std::string_view latencyCsvPath);
std::string wholeDiskPayload(std::string_view sizeText);
std::string adjustedPayload(std::string_view chosenText, std::string_view adjustedText);
std::string smartSheetTitle(std::string_view volumeName);
std::string versionLine(std::string_view version, std::string_view build);
std::string exportingMetrics(std::size_t volumeCount, std::string_view address);
std::string gigabytes(std::int64_t count);

}  // namespace vantorix::text
