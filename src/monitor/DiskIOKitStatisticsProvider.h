#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Registry.h"
#include "util/Result.h"
#include "volumes/DiskVolumeDescriptor.h"
#include "volumes/MonitorError.h"

namespace vantorix {

// Reads a volume's cumulative block-layer counters from the device registry. The counters are a
// "Statistics" dictionary on the matched service or on one of its ancestors.
struct DiskIOKitStatisticsProvider {
    DiskIOKitStatisticsProvider() = delete;

    // Cumulative counters of one device. They wrap modulo 2^64.
    struct Snapshot {
        std::uint64_t bytesRead = 0;
        std::uint64_t bytesWritten = 0;
        std::uint64_t readOperations = 0;
        std::uint64_t writeOperations = 0;

        friend bool operator==(const Snapshot&, const Snapshot&) = default;
    };

    // A service whose "Statistics" answered; the entry owns exactly one reference to it.
    struct CachedIOService {
        RegistryObject service = kNoRegistryObject;
        std::string description;
    };

    struct Match {
        Snapshot snapshot;
        std::vector<CachedIOService> services;
    };

    struct Resolution {
        Snapshot snapshot;
        RegistryObject service = kNoRegistryObject;  // one reference owned by the caller
        std::string label;
    };

    // The keys read from the "Statistics" dictionary, in the order of the Snapshot's fields.
    static const std::array<std::string, 4>& statisticsKeys();

    // Every service matching the BSD name, each walked up to the first ancestor with statistics.
    static Result<Match, MonitorError> matchServices(Registry& registry, std::string_view deviceName);
    // Walks up from `start` (which the caller keeps owning) to the first service with statistics.
    static std::optional<Resolution> resolveStatistics(Registry& registry, RegistryObject start, std::string label,
                                                       std::string_view deviceName);
    static std::optional<Snapshot> readSnapshot(Registry& registry, RegistryObject service, std::string_view label);
    // Class name (or "UnknownIOService") and, when readable, "#0x" and the registry entry ID.
    static std::string serviceDescription(Registry& registry, RegistryObject service);
};

// The counters of one volume for one monitoring run. The first pass finds the services that
// publish statistics; later reads touch only those, and the cache is rebuilt when none answers.
class StatisticsSession {
public:
    using Snapshot = DiskIOKitStatisticsProvider::Snapshot;
    using CachedIOService = DiskIOKitStatisticsProvider::CachedIOService;

    static Result<std::unique_ptr<StatisticsSession>, MonitorError> create(std::shared_ptr<Registry> registry,
                                                                           DiskVolumeDescriptor descriptor);
    ~StatisticsSession();
    StatisticsSession(const StatisticsSession&) = delete;
    StatisticsSession& operator=(const StatisticsSession&) = delete;

    Result<Snapshot, MonitorError> snapshot();
    // Releases the cached services. Safe to call from any thread, more than once.
    void end();

    const DiskVolumeDescriptor& descriptor() const { return descriptor_; }
    // The labels of the cached services, in the order found.
    std::vector<std::string> cachedDescriptions() const;

private:
    StatisticsSession(std::shared_ptr<Registry> registry, DiskVolumeDescriptor descriptor,
                      std::vector<CachedIOService> services);
    void releaseAll(const std::vector<CachedIOService>& services);

    std::shared_ptr<Registry> registry_;
    const DiskVolumeDescriptor descriptor_;
    mutable std::mutex cacheLock_;
    std::vector<CachedIOService> cachedServices_;
};

}  // namespace vantorix
