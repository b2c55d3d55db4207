#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace vantorix::testing {

// A block device's counters as its sysfs stat file gives them, in bytes (sectors × 512) and
// completed operations: bytes read, bytes written, reads, writes.
std::array<std::uint64_t, 4> deviceCounters(const std::string& deviceName);

// Writes `mebibytes` MiB with O_DIRECT (bypassing the page cache) and fsyncs. False on failure.
bool writeDirect(const std::string& path, std::size_t mebibytes);

}  // namespace vantorix::testing
