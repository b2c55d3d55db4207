#include "platform/IoBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#include "platform/FileSystem.h"

namespace vantorix {
namespace {

std::size_t roundUp(std::size_t value, std::size_t multiple) { return (value + multiple - 1) / multiple * multiple; }

}  // namespace

IoBuffer::IoBuffer(std::size_t size) : size_(size) {
    const bool huge = size >= kHugePageSize;
    const std::size_t length = std::max(roundUp(size, huge ? kHugePageSize : kDirectIoAlignment), kDirectIoAlignment);
    // A mapping starts on a page boundary; a huge buffer gets one huge page more to slide into
    // alignment.
    mappingLength_ = length + (huge ? kHugePageSize : 0);
    mapping_ = ::mmap(nullptr, mappingLength_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping_ == MAP_FAILED) {
        mapping_ = nullptr;
        throw std::bad_alloc();
    }
    const auto start = reinterpret_cast<std::uintptr_t>(mapping_);
    data_ = static_cast<std::byte*>(mapping_) + (huge ? roundUp(start, kHugePageSize) - start : 0);
#ifdef MADV_HUGEPAGE
    if (huge) (void)::madvise(data_, length, MADV_HUGEPAGE);  // a hint; refused, ordinary pages serve
#endif
    std::memset(data_, 0, length);
}

IoBuffer::~IoBuffer() {
    if (mapping_) ::munmap(mapping_, mappingLength_);
}

std::span<const std::byte> IoBuffer::bytes(std::size_t count) const { return {data_, std::min(count, size_)}; }

std::span<std::byte> IoBuffer::target(std::size_t count) { return {data_, std::min(count, size_)}; }

}  // namespace vantorix
