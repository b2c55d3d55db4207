#include "monitor/DiskIOKitStatisticsProvider.h"

#include <fmt/format.h>

#include <unordered_set>

#include "log/Log.h"

namespace vantorix {
namespace {

const log::Logger& statisticsLog() {
    static const log::Logger& logger = log::logger("DiskIOKitStatistics");
    return logger;
}

std::string joinKeys(const std::vector<std::string>& keys) { return fmt::format("{}", fmt::join(keys, ", ")); }

}  // namespace

const std::array<std::string, 4>& DiskIOKitStatisticsProvider::statisticsKeys() {
    static const std::array<std::string, 4> keys{"Bytes (Read)", "Bytes (Write)", "Operations (Read)",
                                                 "Operations (Write)"};
    return keys;
}

std::string DiskIOKitStatisticsProvider::serviceDescription(Registry& registry, RegistryObject service) {
    std::string label = registry.className(service).value_or("UnknownIOService");
    if (const auto id = registry.registryEntryId(service); id.ok()) label += fmt::format("#0x{:x}", id.value());
    return label;
}

std::optional<DiskIOKitStatisticsProvider::Snapshot> DiskIOKitStatisticsProvider::readSnapshot(
    Registry& registry, RegistryObject service, std::string_view label) {
    const auto& log = statisticsLog();
    auto copied = registry.copyProperties(service);
    if (!copied.ok()) {
        log.error("IORegistryEntryCreateCFProperties failed for {}; kresult={}", label, copied.error());
        return std::nullopt;
    }
    const PropertyDictionary* properties = copied.value() ? copied.value()->dictionary() : nullptr;
    if (properties == nullptr) {
        log.error("IORegistryEntryCreateCFProperties returned no properties for {}", label);
        return std::nullopt;
    }
    const auto statisticsValue = properties->find("Statistics");
    const PropertyDictionary* statistics = statisticsValue ? statisticsValue->dictionary() : nullptr;
    if (statistics == nullptr) {
        if (log.enabled(log::Level::debug)) {
            log.debug("Statistics dictionary missing on {}; available keys: [{}]", label, joinKeys(properties->keys()));
        }
        return std::nullopt;
    }

    const auto& keys = statisticsKeys();
    std::array<std::uint64_t, 4> values{};
    std::vector<std::string> absent;
    bool complete = true;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const auto value = statistics->find(keys[i]);
        if (!value) {
            absent.push_back(keys[i]);
            complete = false;
        } else if (const PropertyNumber* number = value->number()) {
            values[i] = number->asUInt64();
        } else {
            complete = false;
        }
    }
    if (!complete) {
        log.error("Statistics dictionary on {} missing expected numeric keys [{}]; available keys: [{}]", label,
                  joinKeys(absent), joinKeys(statistics->keys()));
        return std::nullopt;
    }
    const Snapshot snapshot{values[0], values[1], values[2], values[3]};
    log.debug("Read statistics snapshot from {}: bytesRead={}, bytesWritten={}, reads={}, writes={}", label,
              snapshot.bytesRead, snapshot.bytesWritten, snapshot.readOperations, snapshot.writeOperations);
    return snapshot;
}

std::optional<DiskIOKitStatisticsProvider::Resolution> DiskIOKitStatisticsProvider::resolveStatistics(
    Registry& registry, RegistryObject start, std::string label, std::string_view deviceName) {
    const auto& log = statisticsLog();
    // The walk owns a reference to every service it reaches above the start.
    RegistryObject current = start;
    long depth = 0;
    for (;;) {
        if (depth >= 1) label = fmt::format("{} (ancestor depth {})", serviceDescription(registry, current), depth);
        if (auto snapshot = readSnapshot(registry, current, label)) {
            if (depth == 0) {
                log.debug("Statistics resolved directly from IOService {} for BSD name {}", label, deviceName);
                registry.retain(current);
            } else {
                log.debug("Statistics resolved from ancestor depth {} -> {} for BSD name {}", depth, label, deviceName);
            }
            return Resolution{*snapshot, current, std::move(label)};
        }
        auto parent = registry.parentEntry(current, kServicePlane);
        if (!parent.ok()) {
            log.debug("Traversal terminated at IOService {} for BSD name {}; no further ancestors available (kresult={})",
                      label, deviceName, parent.error());
            if (depth >= 1) registry.release(current);
            return std::nullopt;
        }
        label = serviceDescription(registry, parent.value());
        log.debug("Ascending to ancestor depth {} -> {} for BSD name {}", depth + 1, label, deviceName);
        if (depth >= 1) registry.release(current);
        current = parent.value();
        ++depth;
    }
}

Result<DiskIOKitStatisticsProvider::Match, MonitorError> DiskIOKitStatisticsProvider::matchServices(
    Registry& registry, std::string_view deviceName) {
    const auto& log = statisticsLog();
    const auto matching = registry.bsdNameMatching(deviceName);
    if (!matching) {
        log.error("IOBSDNameMatching returned nil for BSD name {}", deviceName);
        return Failure{MonitorError::ioKitMatchingFailed(kIOReturnNoResources)};
    }
    auto iterator = registry.getMatchingServices(*matching);
    if (!iterator.ok()) {
        log.error("IOServiceGetMatchingServices failed for BSD name {} with code {}", deviceName, iterator.error());
        return Failure{MonitorError::ioKitMatchingFailed(iterator.error())};
    }
    RegistryRef iteratorRef(registry, iterator.value());

    Match match;
    bool found = false;
    std::unordered_set<RegistryObject> seen;
    while (const RegistryObject matched = registry.iteratorNext(iteratorRef.get())) {
        RegistryRef matchedRef(registry, matched);
        std::string label = serviceDescription(registry, matched);
        log.debug("Inspecting IOService {} for BSD name {}", label, deviceName);
        if (auto resolution = resolveStatistics(registry, matched, std::move(label), deviceName)) {
            if (!found) {
                match.snapshot = resolution->snapshot;
                found = true;
            }
            if (seen.insert(resolution->service).second) {
                match.services.push_back(CachedIOService{resolution->service, std::move(resolution->label)});
            } else {
                registry.release(resolution->service);
            }
        } else {
            log.debug("No statistics located in IOService chain rooted at {}; advancing to next match for BSD name {}",
                      serviceDescription(registry, matched), deviceName);
        }
    }
    iteratorRef.reset();
    if (match.services.empty()) {
        log.error("statisticsUnavailable triggered because no IOService yielded statistics for BSD name {}", deviceName);
        return Failure{MonitorError::statisticsUnavailable()};
    }
    return match;
}

// -- StatisticsSession --------------------------------------------------------------------------

Result<std::unique_ptr<StatisticsSession>, MonitorError> StatisticsSession::create(std::shared_ptr<Registry> registry,
                                                                                   DiskVolumeDescriptor descriptor) {
    auto match = DiskIOKitStatisticsProvider::matchServices(*registry, descriptor.deviceName);
    if (!match.ok()) return Failure{match.error()};
    return std::unique_ptr<StatisticsSession>(
        new StatisticsSession(std::move(registry), std::move(descriptor), std::move(match.value().services)));
}

StatisticsSession::StatisticsSession(std::shared_ptr<Registry> registry, DiskVolumeDescriptor descriptor,
                                     std::vector<CachedIOService> services)
    : registry_(std::move(registry)), descriptor_(std::move(descriptor)), cachedServices_(std::move(services)) {}

StatisticsSession::~StatisticsSession() { end(); }

void StatisticsSession::releaseAll(const std::vector<CachedIOService>& services) {
    for (const auto& entry : services) registry_->release(entry.service);
}

void StatisticsSession::end() {
    std::vector<CachedIOService> old;
    {
        std::lock_guard lock(cacheLock_);
        old.swap(cachedServices_);
    }
    releaseAll(old);
}

std::vector<std::string> StatisticsSession::cachedDescriptions() const {
    std::lock_guard lock(cacheLock_);
    std::vector<std::string> labels;
    for (const auto& entry : cachedServices_) labels.push_back(entry.description);
    return labels;
}

Result<StatisticsSession::Snapshot, MonitorError> StatisticsSession::snapshot() {
    {
        // Read under the cache's lock (an end() from another thread waits for a read in progress),
        // which spares each read a copy of the list and a retain and release of its services.
        std::lock_guard lock(cacheLock_);
        for (const auto& entry : cachedServices_) {
            if (auto result = DiskIOKitStatisticsProvider::readSnapshot(*registry_, entry.service, entry.description)) {
                return *result;
            }
        }
    }

    statisticsLog().notice("Cached IOService entries for BSD name {} failed; rebuilding matching cache",
                           descriptor_.deviceName);
    auto match = DiskIOKitStatisticsProvider::matchServices(*registry_, descriptor_.deviceName);
    if (!match.ok()) return Failure{match.error()};
    std::vector<CachedIOService> old;
    {
        std::lock_guard lock(cacheLock_);
        old.swap(cachedServices_);
        cachedServices_ = std::move(match.value().services);
    }
    releaseAll(old);
    return match.value().snapshot;
}

}  // namespace vantorix
