#pragma once

#include <string_view>

#include "exporter/Exposition.h"

namespace vantorix::exporter {

// The standard health figures in one smartctl --json answer: the overall self-assessment, the
// capability, the current temperature, power-on hours, NVMe's percentage used and media errors,
// and ATA's reallocated sector count (attribute 5, raw). Whatever is missing or malformed stays
// absent; input that is not JSON gives an empty set. `refreshedAt` is left to the caller.
SmartFigures smartFiguresFromJson(std::string_view smartctlJson);

}  // namespace vantorix::exporter
