#pragma once

#include <string>
#include <string_view>

namespace vantorix {

// How urgent the work of a queue or task is. Each class maps onto a thread nice value.
enum class QualityOfService {
    userInteractive,  // work the user is watching right now (the sampling timer)
    userInitiated,    // work the user asked for and waits on (a performance test, downsampling)
    utility,          // long-running work whose result is not awaited (aggregation, reports)
    background,       // housekeeping nobody waits for
};

// The nice value a thread of this quality of service asks for: -5, 0, 5 and 10. An unprivileged
// process may not lower its nice value, so user-interactive threads usually stay at the process's.
int niceValue(QualityOfService qos) noexcept;

// The name a thread gets from a label such as "com.vantorix.monitor.aggregation": the last
// non-empty dot-separated component, cut to the 15 bytes a Linux thread name holds.
std::string threadNameForLabel(std::string_view label);

// Names the calling thread after `label` and applies the nice value of `qos` to it. Failures (no
// permission to raise the priority, for instance) are logged at debug level and otherwise ignored.
void configureCurrentThread(std::string_view label, QualityOfService qos) noexcept;

}  // namespace vantorix
