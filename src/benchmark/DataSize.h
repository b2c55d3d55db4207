#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "volumes/DiskVolumeDescriptor.h"

namespace vantorix {

// How much data a performance test moves: the volume's whole free space, or a number of
// decimal gigabytes (1 GB = 1,000,000,000 bytes).
class DataSize {
public:
    static constexpr std::uint64_t kGigabyte = 1'000'000'000ULL;

    static DataSize availableSpace() { return DataSize(std::nullopt); }
    static DataSize gigabytes(std::int64_t count) { return DataSize(count); }

    // The six choices offered, in menu order: Full Disk, 1, 10, 100, 1000 and 10000 GB.
    static const std::vector<DataSize>& allCases();
    // The choice whose id() is `id`, if it is one of allCases().
    static std::optional<DataSize> fromId(const std::string& id);

    bool isAvailableSpace() const { return !count_; }
    // The gigabyte count; meaningful only when !isAvailableSpace().
    std::int64_t gigabyteCount() const { return count_.value_or(0); }

    // "availableSpace" or "gigabytes_10".
    std::string id() const;
    // "全盘" / "Full Disk", or "10 GB".
    std::string title() const;

    friend bool operator==(const DataSize&, const DataSize&) = default;

private:
    explicit DataSize(std::optional<std::int64_t> count) : count_(count) {}
    std::optional<std::int64_t> count_;
};

// The bytes a run moves, and whether they differ from the choice because of the free space.
struct EffectivePayload {
    std::uint64_t byteCount = 0;
    bool isAdjusted = false;

    friend bool operator==(const EffectivePayload&, const EffectivePayload&) = default;
};

// The sizing rule. A fixed size may use the free space to the last byte (and needs no known free
// space); the whole disk needs at least one gigabyte free and uses the free space truncated to
// whole gigabytes. Absent means there is not enough free space.
std::optional<EffectivePayload> effectivePayload(const DataSize& size, std::optional<std::uint64_t> freeBytes);

// A payload size in MB, GB or TB (decimal), as the payload texts show it.
std::string payloadSizeText(std::uint64_t bytes);

// What the dashboard shows under the run button for the selected volume.
struct PerformancePayloadContext {
    std::string description;
    std::optional<EffectivePayload> preview;
    bool isAvailable = false;
    std::optional<std::string> warning;

    friend bool operator==(const PerformancePayloadContext&, const PerformancePayloadContext&) = default;
};

// `preview` is the tester's payloadPreview for the same volume.
PerformancePayloadContext performancePayloadContext(const std::optional<DiskVolumeDescriptor>& volume,
                                                    const DataSize& size,
                                                    const std::optional<EffectivePayload>& preview);

}  // namespace vantorix
