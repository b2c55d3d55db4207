#include "benchmark/TestMode.h"

#include <fmt/format.h>

#include <cmath>

#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {

std::string rawValue(TestKind kind) {
    switch (kind) {
        case TestKind::standard: return "standard";
        case TestKind::queueDepth: return "queueDepth";
        case TestKind::sustainedWrite: return "sustainedWrite";
    }
    return "standard";
}

std::string modeDescription(const TestMode& mode) {
    if (mode.kind == TestKind::queueDepth) {
        const std::string seconds = text::decimalText(mode.secondsPerProfile, 0, 1);
        return text::isEnglish()
                   ? fmt::format("Queue-depth profiles (io_uring, direct I/O), {} s per read and per write", seconds)
                   : fmt::format("队列深度测试（io_uring，直接 I/O），每项读取与写入各 {} 秒", seconds);
    }
    if (mode.kind == TestKind::sustainedWrite) {
        return text::localized("持续写入（io_uring，直接 I/O），1 MiB 块，队列深度 8",
                               "Sustained write (io_uring, direct I/O), 1 MiB blocks at queue depth 8");
    }
    if (mode.bypassCache)
        return text::localized("绕过缓存（直接 I/O），队列深度 1", "Cache bypass (direct I/O), queue depth 1");
    return text::localized("标准（经过页面缓存），队列深度 1", "Standard (through the page cache), queue depth 1");
}

std::string queueDepthStepName(std::size_t profile, bool write) {
    if (profile >= kQueueDepthProfiles.size()) return text::localized("准备测试文件", "Preparing the test file");
    return fmt::format("{} {}", kQueueDepthProfiles[profile].name,
                       write ? text::localized("写入", "Write") : text::localized("读取", "Read"));
}

std::string sustainedStepName() { return text::localized("持续写入", "Sustained Write"); }

}  // namespace vantorix
