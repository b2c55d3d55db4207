#include "benchmark/PageCacheCheck.h"

#include <fmt/format.h>

#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {

bool PhaseTraffic::servedFromPageCache() const {
    return deviceBytes && bytesMoved > 0 &&
           static_cast<double>(*deviceBytes) < kPageCacheShareThreshold * static_cast<double>(bytesMoved);
}

bool isWritePhase(BenchmarkPhase phase) {
    return phase == BenchmarkPhase::randomWrite || phase == BenchmarkPhase::sequentialWrite;
}

std::string phaseBytesText(std::uint64_t bytes) {
    using text::ByteUnits;
    return text::byteCountText(bytes, ByteUnits::bytes | ByteUnits::kilobytes | ByteUnits::megabytes |
                                          ByteUnits::gigabytes | ByteUnits::terabytes);
}

std::string phaseTrafficText(const PhaseTraffic& traffic) {
    const auto bytes = phaseBytesText;
    const bool write = isWritePhase(traffic.phase);
    if (!traffic.deviceBytes) {
        return text::isEnglish() ? fmt::format("moved {}; device counters unavailable", bytes(traffic.bytesMoved))
                                 : fmt::format("传输 {}；无法读取设备计数", bytes(traffic.bytesMoved));
    }
    if (text::isEnglish()) {
        return fmt::format("moved {}, device {} {}", bytes(traffic.bytesMoved), write ? "wrote" : "read",
                           bytes(*traffic.deviceBytes));
    }
    return fmt::format("传输 {}，设备{} {}", bytes(traffic.bytesMoved), write ? "写入" : "读取",
                       bytes(*traffic.deviceBytes));
}

std::string pageCacheWarning(BenchmarkPhase phase) {
    if (isWritePhase(phase)) {
        return text::isEnglish()
                   ? fmt::format(
                         "Warning: most writes of the {} stayed in the page cache and never reached the "
                         "disk; its speed reflects memory, not the disk.",
                         phaseName(phase))
                   : fmt::format("警告：{}的大部分写入停留在页面缓存中，没有到达磁盘；其速度反映的是内存而不是磁盘。",
                                 phaseName(phase));
    }
    return text::isEnglish()
               ? fmt::format(
                     "Warning: the {} was served mostly from the page cache; its speed reflects memory, not "
                     "the disk.",
                     phaseName(phase))
               : fmt::format("警告：{}的数据大多来自页面缓存，其速度反映的是内存而不是磁盘。", phaseName(phase));
}

std::vector<std::string> pageCacheWarnings(const std::vector<PhaseTraffic>& phases) {
    std::vector<std::string> warnings;
    for (const auto& traffic : phases) {
        if (traffic.servedFromPageCache()) warnings.push_back(pageCacheWarning(traffic.phase));
    }
    return warnings;
}

}  // namespace vantorix
