#pragma once

#include <string_view>

#include "exporter/Exposition.h"

namespace vantorix::exporter {

// What one smartctl --json answer, read at `at` (Unix seconds), tells the exporter: the drive's
// identity and health figures (health::driveReadingFromJson; `device` names it when the answer
// does not) and whether it supports SMART. Whatever is missing or malformed stays absent; input that
// is not JSON gives an empty set. The growth is left to the caller.
SmartFigures smartFiguresFromJson(std::string_view smartctlJson, double at = 0, std::string_view device = {});

}  // namespace vantorix::exporter
