#include "benchmark/DataSize.h"

#include <fmt/format.h>

#include <cassert>
#include <limits>

#include "benchmark/TestError.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Messages.h"

namespace vantorix {

const std::vector<DataSize>& DataSize::allCases() {
    static const std::vector<DataSize> cases{availableSpace(), gigabytes(1),    gigabytes(10),
                                             gigabytes(100),   gigabytes(1000), gigabytes(10000)};
    return cases;
}

std::optional<DataSize> DataSize::fromId(const std::string& id) {
    for (const auto& size : allCases()) {
        if (size.id() == id) return size;
    }
    return std::nullopt;
}

std::string DataSize::id() const {
    return count_ ? fmt::format("gigabytes_{}", *count_) : std::string("availableSpace");
}

std::string DataSize::title() const { return count_ ? text::gigabytes(*count_) : text::localized("全盘", "Full Disk"); }

std::optional<EffectivePayload> effectivePayload(const DataSize& size, std::optional<std::uint64_t> freeBytes) {
    if (size.isAvailableSpace()) {
        if (!freeBytes || *freeBytes < DataSize::kGigabyte) return std::nullopt;
        return EffectivePayload{*freeBytes / DataSize::kGigabyte * DataSize::kGigabyte, false};
    }
    const std::int64_t count = size.gigabyteCount();
    // The offered choices never come near these limits.
    assert(count >= 0);
    assert(static_cast<std::uint64_t>(count) <= std::numeric_limits<std::uint64_t>::max() / DataSize::kGigabyte);
    const std::uint64_t bytes = static_cast<std::uint64_t>(count) * DataSize::kGigabyte;
    if (freeBytes && bytes > *freeBytes) return std::nullopt;
    return EffectivePayload{bytes, false};
}

std::string payloadSizeText(std::uint64_t bytes) {
    using text::ByteUnits;
    return text::byteCountText(bytes, ByteUnits::megabytes | ByteUnits::gigabytes | ByteUnits::terabytes);
}

PerformancePayloadContext performancePayloadContext(const std::optional<DiskVolumeDescriptor>& volume,
                                                    const DataSize& size,
                                                    const std::optional<EffectivePayload>& preview) {
    const auto plain = [&] { return text::localized("数据量：", "Payload: ") + size.title(); };
    if (!volume) {
        if (size.isAvailableSpace()) {
            return {text::localized("数据量：全盘", "Payload: Full Disk"), std::nullopt, false,
                    TestError(TestError::volumeUnavailable).description()};
        }
        return {plain(), std::nullopt, false, std::nullopt};
    }
    if (!preview) {
        const std::string message = TestError(TestError::insufficientFreeSpace).description();
        return {message, std::nullopt, false, message};
    }
    if (size.isAvailableSpace()) {
        return {text::wholeDiskPayload(payloadSizeText(preview->byteCount)), preview, true, std::nullopt};
    }
    if (preview->isAdjusted) {
        return {text::adjustedPayload(size.title(), payloadSizeText(preview->byteCount)), preview, true, std::nullopt};
    }
    return {plain(), preview, true, std::nullopt};
}

}  // namespace vantorix
