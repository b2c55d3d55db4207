#include "dashboard/MessageBubbles.h"

namespace vantorix::dashboard {

std::vector<BubblePayload> messageBubbles(const DiskIOMonitor::State& monitor,
                                          const DiskPerformanceTester::State& tester) {
    std::vector<BubblePayload> bubbles;
    if (monitor.errorMessage) bubbles.push_back({Uuid::make(), *monitor.errorMessage, BubblePayload::Style::error});
    if (tester.errorMessage) bubbles.push_back({Uuid::make(), *tester.errorMessage, BubblePayload::Style::error});
    if (tester.automaticReportMessage) {
        bubbles.push_back({Uuid::make(), *tester.automaticReportMessage, BubblePayload::Style::success});
    }
    return bubbles;
}

const char* bubbleSymbol(BubblePayload::Style style) {
    return style == BubblePayload::Style::error ? "exclamationmark.triangle.fill" : "checkmark.circle.fill";
}

}  // namespace vantorix::dashboard
