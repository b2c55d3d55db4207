#include "monitor/LoadTexts.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <vector>

#include "text/Formats.h"
#include "text/Language.h"

namespace vantorix {
namespace {

constexpr const char* kNoFigure = "—";

}  // namespace

bool servesInParallel(const std::optional<BlockQueue>& queue) {
    if (!queue) return false;
    return queue->hardwareQueues.value_or(1) > 1 || queue->rotational == false;
}

std::string utilizationLabel(const std::optional<BlockQueue>& queue) {
    return servesInParallel(queue) ? text::localized("繁忙时间", "Busy Time")
                                   : text::localized("利用率", "Utilization");
}

std::string awaitText(std::optional<double> milliseconds) {
    if (!milliseconds) return kNoFigure;
    const int digits = *milliseconds < 10 ? 2 : (*milliseconds < 100 ? 1 : 0);
    return text::decimalText(*milliseconds, digits, digits) + text::localized(" 毫秒", " ms");
}

std::string utilizationText(std::optional<double> utilization) {
    if (!utilization) return kNoFigure;
    return text::percentText(*utilization, 1);
}

std::string queueDepthText(std::optional<double> depth, const std::optional<BlockQueue>& queue) {
    if (!depth) return kNoFigure;
    auto shown = text::decimalText(*depth, 2, 2);
    if (queue && queue->requests) shown += fmt::format(" / {}", *queue->requests);
    return shown;
}

std::optional<std::string> queueFactsText(const std::optional<BlockQueue>& queue) {
    if (!queue) return std::nullopt;
    std::vector<std::string> parts;
    const bool english = text::isEnglish();
    if (queue->requests) {
        parts.push_back(english ? fmt::format("{} requests", *queue->requests)
                                : fmt::format("{} 个请求", *queue->requests));
    }
    if (queue->hardwareQueues) {
        const auto count = *queue->hardwareQueues;
        parts.push_back(english ? fmt::format("{} hardware queue{}", count, count == 1 ? "" : "s")
                                : fmt::format("{} 个硬件队列", count));
    }
    if (queue->rotational) {
        parts.push_back(*queue->rotational ? text::localized("旋转介质", "rotational")
                                           : text::localized("非旋转介质", "non-rotational"));
    }
    if (parts.empty()) return std::nullopt;
    return fmt::format("{}", fmt::join(parts, english ? ", " : "，"));
}

}  // namespace vantorix
