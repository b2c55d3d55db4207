#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

// Writes `mebibytes` MiB with O_DIRECT (bypassing the page cache) and fsyncs. False on failure.
inline bool writeDirect(const std::string& path, std::size_t mebibytes) {
    constexpr std::size_t kChunk = 1 << 20;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_DIRECT, 0600);
    if (fd < 0) return false;
    void* buffer = nullptr;
    bool ok = ::posix_memalign(&buffer, 4096, kChunk) == 0;
    if (ok) std::memset(buffer, 0x5A, kChunk);
    for (std::size_t i = 0; ok && i < mebibytes; ++i) ok = ::write(fd, buffer, kChunk) == static_cast<ssize_t>(kChunk);
    ok = ok && ::fsync(fd) == 0;
    ::close(fd);
    std::free(buffer);
    return ok;
}

}  // namespace vantorix::testing
