#pragma once

#include <cstddef>
#include <span>

namespace vantorix {

// Memory for transfers that bypass the page cache: it starts on a 4 KiB boundary, is zero-filled,
// and every page is faulted in on construction, so no timed transfer pays for that.
//
// A buffer of 2 MiB or more starts on a 2 MiB boundary and asks for transparent huge pages. The
// block layer takes each huge page as one physically contiguous segment, so a large transfer
// leaves in requests as long as the device accepts (4 MiB on virtio). From ordinary pages it is
// cut at the device's segment limit (254 pages on virtio, just under 1 MiB) wherever neighbouring
// pages do not happen to lie side by side in memory, which varies from one run to the next. Where
// the kernel has no huge pages for the process, the buffer is made of ordinary pages.
class IoBuffer {
public:
    static constexpr std::size_t kHugePageSize = std::size_t{2} * 1024 * 1024;

    // Throws std::bad_alloc when the memory cannot be had.
    explicit IoBuffer(std::size_t size);
    ~IoBuffer();
    IoBuffer(const IoBuffer&) = delete;
    IoBuffer& operator=(const IoBuffer&) = delete;

    std::byte* data() { return data_; }
    std::size_t size() const { return size_; }
    // The first `count` bytes, at most the whole buffer.
    std::span<const std::byte> bytes(std::size_t count) const;
    std::span<std::byte> target(std::size_t count);

private:
    void* mapping_ = nullptr;
    std::size_t mappingLength_ = 0;
    std::byte* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace vantorix
