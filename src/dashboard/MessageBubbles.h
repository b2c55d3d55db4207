#pragma once

#include <string>
#include <vector>

#include "benchmark/DiskPerformanceTester.h"
#include "monitor/DiskIOMonitor.h"
#include "util/Uuid.h"

namespace vantorix::dashboard {

// One message bubble at the top of the dashboard.
struct BubblePayload {
    enum class Style { error, success };
    Uuid id = Uuid::make();
    std::string message;
    Style style = Style::error;
};

// The bubbles in their order, each only when present: the monitor's error, the tester's error,
// the tester's automatic report message (a success).
std::vector<BubblePayload> messageBubbles(const DiskIOMonitor::State& monitor,
                                          const DiskPerformanceTester::State& tester);

// The symbol a bubble shows before its message.
const char* bubbleSymbol(BubblePayload::Style style);

}  // namespace vantorix::dashboard
