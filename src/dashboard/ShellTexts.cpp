#include "dashboard/ShellTexts.h"

#include "text/Language.h"
#include "text/Messages.h"

namespace vantorix::dashboard {

using text::localized;

WindowSpec aboutWindow() { return {"about-vantorix-window", localized("关于 Vantorix", "About Vantorix"), 420, 380}; }

WindowSpec feedbackWindow() {
    return {"feedback-vantorix-window", localized("感谢您留下您的建议，多多益善～", "Thanks for your feedback."), 520,
            560};
}

std::string feedbackCommandTitle() { return localized("建议与反馈", "Feedback"); }
std::string aboutCommandTitle() { return localized("关于 Vantorix", "About Vantorix"); }
std::string samplingPrecisionMenuTitle() { return localized("采样精度", "Sampling Precision"); }
std::string samplingIntervalPickerTitle() { return localized("采样间隔", "Sampling Interval"); }

std::vector<PickerEntry<DiskIOMonitor::SamplingPrecision>> samplingPrecisionEntries() {
    std::vector<PickerEntry<DiskIOMonitor::SamplingPrecision>> entries;
    for (const auto precision : DiskIOMonitor::allPrecisions) {
        const std::string number = std::to_string(DiskIOMonitor::rawValue(precision));
        entries.push_back({number + localized(" 毫秒", " ms"), precision});
    }
    return entries;
}

std::string testSampleSizeMenuTitle() { return localized("测试样本大小", "Test Sample Size"); }
std::string payloadPickerTitle() { return localized("数据量", "Payload"); }

std::vector<PickerEntry<DataSize>> testSampleSizeEntries() {
    std::vector<PickerEntry<DataSize>> entries;
    for (const auto& size : DataSize::allCases()) entries.push_back({size.title(), size});
    return entries;
}

std::string testKindPickerTitle() { return localized("测试类型", "Test Kind"); }

std::vector<PickerEntry<TestKind>> testKindEntries() {
    return {{localized("标准（四阶段）", "Standard (Four Phases)"), TestKind::standard},
            {localized("队列深度（io_uring）", "Queue Depth (io_uring)"), TestKind::queueDepth},
            {localized("持续写入", "Sustained Write"), TestKind::sustainedWrite}};
}

std::string bypassCacheTitle() { return localized("绕过缓存", "Bypass Cache"); }

std::string exportFinishedTitle() { return localized("导出完成", "Export Finished"); }
std::string okButton() { return localized("好", "OK"); }

std::string folderChooserTitle() { return localized("选择需要监控的卷", "Choose volume to monitor"); }
std::string folderChooserConfirm() { return localized("选择", "Choose"); }

std::string folderChooserStart(const std::function<bool(const std::string&)>& isFolder,
                               const std::optional<std::string>& user, const std::optional<std::string>& home) {
    std::vector<std::string> candidates;
    if (user && !user->empty()) {
        candidates.push_back("/run/media/" + *user);
        candidates.push_back("/media/" + *user);
    }
    candidates.insert(candidates.end(), {"/media", "/mnt"});
    if (home && !home->empty()) candidates.push_back(*home);
    for (const auto& candidate : candidates) {
        if (isFolder(candidate)) return candidate;
    }
    return "/";
}

}  // namespace vantorix::dashboard
