#include "benchmark/TestError.h"

#include "text/Language.h"
#include "text/Messages.h"

namespace vantorix {

std::string TestError::description() const {
    switch (kind_) {
        case volumeUnavailable: return text::localized("请先选择需要测试的卷。", "Please choose a volume before running the test.");
        case insufficientFreeSpace:
            return text::localized("剩余容量不足，无法运行性能测试。", "Not enough free space to run the performance test.");
        case temporaryFileCreationFailed:
            return text::localized("无法创建临时测试文件。", "Failed to create the temporary test file.");
        case fileHandleUnavailable:
            return text::localized("无法打开测试文件，请检查读写权限。",
                                   "Unable to open the test file. Please verify read/write permissions.");
        case writeFailed: return text::localized("写入测试失败，请检查磁盘状态。", "Write phase failed. Please check the disk status.");
        case readFailed: return text::localized("读取测试失败，请检查磁盘状态。", "Read phase failed. Please check the disk status.");
        case noResultToExport:
            return text::localized("暂无可导出的性能测试结果。", "No performance test result available for export.");
        case reportWriteFailed: return text::reportExportFailed(message_);
    }
    return {};
}

}  // namespace vantorix
