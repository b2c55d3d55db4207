#include "benchmark/TestError.h"

#include "text/Language.h"
#include "text/Messages.h"
#include "text/SystemError.h"

namespace vantorix {
namespace {

std::string sentence(TestError::Kind kind) {
    switch (kind) {
        case TestError::volumeUnavailable:
            return text::localized("请先选择需要测试的卷。", "Please choose a volume before running the test.");
        case TestError::insufficientFreeSpace:
            return text::localized("剩余容量不足，无法运行性能测试。",
                                   "Not enough free space to run the performance test.");
        case TestError::temporaryFileCreationFailed:
            return text::localized("无法创建临时测试文件。", "Failed to create the temporary test file.");
        case TestError::fileHandleUnavailable:
            return text::localized("无法打开测试文件，请检查读写权限。",
                                   "Unable to open the test file. Please verify read/write permissions.");
        case TestError::writeFailed:
            return text::localized("写入测试失败，请检查磁盘状态。",
                                   "Write phase failed. Please check the disk status.");
        case TestError::readFailed:
            return text::localized("读取测试失败，请检查磁盘状态。",
                                   "Read phase failed. Please check the disk status.");
        case TestError::noResultToExport:
            return text::localized("暂无可导出的性能测试结果。", "No performance test result available for export.");
        case TestError::reportWriteFailed: return {};
        case TestError::directIoUnsupported:
            return text::localized(
                "此文件系统无法绕过缓存（不支持直接 I/O 或文件本就存放在内存中），无法在此运行绕过缓存的测试。",
                "This file system cannot bypass the cache (it refuses direct I/O or keeps its files in "
                "memory), so a cache-bypass test cannot run on it.");
        case TestError::queuedIoUnavailable:
            return text::localized("此系统不提供 io_uring，无法运行队列深度测试。",
                                   "This system does not offer io_uring, so the queue-depth test cannot run.");
        case TestError::volumeWentAway:
            return text::localized("卷已被卸载或移除，测试无法继续。",
                                   "The volume was unmounted or removed; the test cannot go on.");
    }
    return {};
}

}  // namespace

TestError TestError::because(Kind kind, int code) { return TestError(kind, text::systemErrorText(code)); }

std::string TestError::description() const {
    if (kind_ == reportWriteFailed) return text::reportExportFailed(message_);
    return text::withCause(sentence(kind_), message_);
}

}  // namespace vantorix
