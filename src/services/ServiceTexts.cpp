#include "services/ServiceTexts.h"

#include "text/Language.h"

namespace vantorix::services {

using text::localized;

std::string aboutDescription() {
    return localized(
        "Vantorix 描述文件夹所在的卷，实时监视它的读写流量，测试它的性能并生成报告，"
        "还能显示硬盘的 SMART 健康状况。",
        "Vantorix describes the volume behind a folder, watches its live read and write traffic, "
        "benchmarks it with a report, and shows the drive's SMART health.");
}
std::string aboutCredit() { return localized("© 2026 Vantorix 开发团队", "© 2026 the Vantorix developers"); }
std::string checkUpdateButton() { return localized("检查更新", "Check Update"); }
std::string checkingUpdate() { return localized("正在检查更新…", "Checking for updates…"); }
std::string downloadingUpdate() { return localized("正在下载更新…", "Downloading the update…"); }
std::string downloadPromptTitle() { return localized("是否下载更新？", "Download the update?"); }
std::string downloadButton() { return localized("下载", "Download"); }
std::string cancelButton() { return localized("取消", "Cancel"); }
std::string noticeTitle() { return localized("提示", "Notice"); }

std::string feedbackTypePickerLabel() { return localized("类型", "Type"); }
std::string titlePlaceholder() { return localized("标题（至少5字）", "Title (5–100)"); }
std::string contentPlaceholder() { return localized("内容（至少20字）", "Content (20–2000)"); }
std::string emailPlaceholder() { return localized("联系邮箱（可选）", "Contact Email (optional)"); }
std::string submitButton() { return localized("提交", "Submit"); }
std::string submitting() { return localized("正在提交…", "Submitting…"); }

}  // namespace vantorix::services
