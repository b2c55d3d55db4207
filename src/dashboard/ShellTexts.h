#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "benchmark/DataSize.h"
#include "benchmark/TestMode.h"
#include "monitor/DiskIOMonitor.h"

namespace vantorix::dashboard {

// The windows the application declares besides the main one; each exists at most once.
struct WindowSpec {
    std::string identifier;
    std::string title;  // in the current language
    int defaultWidth = 0;
    int defaultHeight = 0;
};
WindowSpec aboutWindow();     // "about-vantorix-window", 420 × 380
WindowSpec feedbackWindow();  // "feedback-vantorix-window", 520 × 560

// Printed to standard output when the main window is first shown.
inline constexpr std::string_view kLaunchLine = "[Vantorix] App launched and root window created.";

// One entry of a menu picker.
template <class Value>
struct PickerEntry {
    std::string label;
    Value value;
};

// The menu bar, in this order: the feedback and about commands, then the two picker menus.
std::string feedbackCommandTitle();
std::string aboutCommandTitle();
std::string samplingPrecisionMenuTitle();
std::string samplingIntervalPickerTitle();
std::vector<PickerEntry<DiskIOMonitor::SamplingPrecision>> samplingPrecisionEntries();  // "1 ms" … "1000 ms"
std::string testSampleSizeMenuTitle();
std::string payloadPickerTitle();
std::vector<PickerEntry<DataSize>> testSampleSizeEntries();  // "Full Disk", "1 GB" … "10000 GB"
// Below the sizes in the same menu: the kind of test, then whether the standard test bypasses
// the page cache (the queue-depth test always does).
std::string testKindPickerTitle();
// "Standard (Four Phases)", "Queue Depth (io_uring)", "Sustained Write"
std::vector<PickerEntry<TestKind>> testKindEntries();
std::string bypassCacheTitle();

// The chart export's outcome alert.
std::string exportFinishedTitle();
std::string okButton();

// The folder chooser.
std::string folderChooserTitle();
std::string folderChooserConfirm();
// Where it starts: the first existing folder of /run/media/$USER, /media/$USER, /media, /mnt and
// $HOME (the root folder when none exists). `isFolder` tells whether a path is an existing folder.
std::string folderChooserStart(const std::function<bool(const std::string&)>& isFolder,
                               const std::optional<std::string>& user, const std::optional<std::string>& home);

}  // namespace vantorix::dashboard
