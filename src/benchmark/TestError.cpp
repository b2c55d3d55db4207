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
        case directIoUnsupported:
            return text::localized("此文件系统无法绕过缓存（不支持直接 I/O 或文件本就存放在内存中），无法在此运行绕过缓存的测试。",
                                   "This file system cannot bypass the cache (it refuses direct I/O or keeps its files in "
                                   "memory), so a cache-bypass test cannot run on it.");
        case queuedIoUnavailable:
            return text::localized("此系统不提供 io_uring，无法运行队列深度测试。",
                                   "This system does not offer io_uring, so the queue-depth test cannot run.");
    }
    return {};
}

}  // namespace vantorix
