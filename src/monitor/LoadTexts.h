#pragma once

#include <optional>
#include <string>

#include "monitor/DeviceLoad.h"
#include "platform/BlockDevice.h"

namespace vantorix {

// True when the device may serve several requests at once: more than one hardware queue, or no
// rotating platter. Being busy all the time does not make such a device saturated.
bool servesInParallel(const std::optional<BlockQueue>& queue);

// The name of Δbusy ÷ Δwall for this device: "Utilization", or "Busy Time" on a device that
// serves in parallel. In the current language.
std::string utilizationLabel(const std::optional<BlockQueue>& queue);

// "0.42 ms", "12.5 ms", "1,234 ms" ("0.42 毫秒"); "—" for a span without completions.
std::string awaitText(std::optional<double> milliseconds);
// "37.5%"; "—" for an empty span.
std::string utilizationText(std::optional<double> utilization);
// "3.21", or "3.21 / 128" with the device's own queue size; "—" for an empty span.
std::string queueDepthText(std::optional<double> depth, const std::optional<BlockQueue>& queue);

// The queue facts in one line: "128 requests, 4 hardware queues, non-rotational"; nothing when the
// device has no queue.
std::optional<std::string> queueFactsText(const std::optional<BlockQueue>& queue);

}  // namespace vantorix
