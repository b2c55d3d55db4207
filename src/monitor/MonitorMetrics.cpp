#include "monitor/MonitorMetrics.h"

#include "text/Formats.h"

namespace vantorix {

std::string MonitorMetrics::durationText(double seconds) { return text::clockDurationText(seconds); }

}  // namespace vantorix
