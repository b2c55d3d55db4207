#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>

namespace vantorix::testing {

// A block device's counters as its sysfs stat file gives them, in bytes (sectors × 512) and
// completed operations: bytes read, bytes written, reads, writes.
inline std::array<std::uint64_t, 4> deviceCounters(const std::string& deviceName) {
    std::ifstream in("/sys/class/block/" + deviceName + "/stat");
    std::array<std::uint64_t, 7> f{};
    for (auto& v : f) in >> v;
    return {f[2] * 512, f[6] * 512, f[0], f[4]};
}

// Writes `mebibytes` MiB with O_DIRECT (bypassing the page cache): a new file, fsynced, a MiB a
// write, or, with `inPlaceAt`, over the file's bytes from that offset in one write, so that the
// device sees the data and almost nothing else. False on failure.
inline bool writeDirect(const std::string& path, std::size_t mebibytes, std::optional<std::size_t> inPlaceAt = {}) {
    const std::size_t chunk = inPlaceAt ? mebibytes << 20U : 1 << 20, chunks = inPlaceAt ? 1 : mebibytes;
    const int fd = ::open(path.c_str(), O_WRONLY | O_DIRECT | (inPlaceAt ? 0 : O_CREAT | O_TRUNC), 0600);
    if (fd < 0) return false;
    void* buffer = nullptr;
    bool ok = ::posix_memalign(&buffer, 4096, chunk) == 0;
    if (ok) std::memset(buffer, 0x5A, chunk);
    for (std::size_t i = 0; ok && i < chunks; ++i) {
        const auto at = static_cast<off_t>(inPlaceAt.value_or(0) + i * chunk);
        ok = ::pwrite(fd, buffer, chunk, at) == static_cast<ssize_t>(chunk);
    }
    ok = ok && (inPlaceAt || ::fsync(fd) == 0);
    ::close(fd);
    std::free(buffer);
    return ok;
}

}  // namespace vantorix::testing
