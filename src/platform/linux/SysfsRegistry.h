#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Registry.h"

namespace vantorix {

namespace sysfs {
class SysfsNode;
class SysfsTree;
}  // namespace sysfs

// The device registry over sysfs. A service is a device directory under <root>/devices; a BSD name
// matches the directory that <root>/class/block/NAME leads to; a service's parent is the directory
// above it (a stacked block device stands on its first slave instead), and the top-level
// directories of <root>/devices are roots. The class name is the device's subsystem. Properties are
// the directory's attribute files plus the keys that describe how the device is attached and, on
// block devices, the "Statistics" counters; they are read when they are looked up.
//
// The same directory gets the same handle for as long as any reference to it is held; a handle is
// freed when its last reference is released and is not handed out again while the registry can
// avoid it (numbers are only reused after 2^32 - 1 allocations). All methods are safe to call from
// several threads at once.
class SysfsRegistry final : public Registry {
public:
    explicit SysfsRegistry(std::filesystem::path sysfsRoot = "/sys");
    ~SysfsRegistry() override;
    SysfsRegistry(const SysfsRegistry&) = delete;
    SysfsRegistry& operator=(const SysfsRegistry&) = delete;

    std::optional<MatchingDescription> bsdNameMatching(std::string_view deviceName) override;
    Result<RegistryObject, KernReturn> getMatchingServices(const MatchingDescription& matching) override;
    RegistryObject iteratorNext(RegistryObject iterator) override;
    Result<std::optional<PropertyValue>, KernReturn> copyProperties(RegistryObject service) override;
    Result<RegistryObject, KernReturn> parentEntry(RegistryObject service, std::string_view plane) override;
    std::optional<std::string> className(RegistryObject service) override;
    Result<std::uint64_t, KernReturn> registryEntryId(RegistryObject service) override;
    void retain(RegistryObject object) override;
    void release(RegistryObject object) override;

    // The device directory behind a service handle, when the handle is live.
    std::optional<std::filesystem::path> servicePath(RegistryObject service) const;
    // Services and iterators that still hold references.
    std::size_t liveObjectCount() const;

private:
    struct Object {
        std::uint32_t references = 1;
        std::shared_ptr<const sysfs::SysfsNode> node;  // services
        std::vector<std::filesystem::path> matches;    // iterators: directories not yet handed out
        std::size_t next = 0;
    };

    Result<RegistryObject, KernReturn> acquireService(const std::filesystem::path& dir);
    std::shared_ptr<const sysfs::SysfsNode> nodeOf(RegistryObject service) const;
    RegistryObject allocateHandleLocked();
    RegistryObject existingServiceLocked(const std::filesystem::path& dir, std::uint64_t inode);

    std::shared_ptr<const sysfs::SysfsTree> tree_;
    mutable std::mutex mutex_;
    std::unordered_map<RegistryObject, Object> objects_;
    std::unordered_map<std::string, RegistryObject> services_;  // by canonical directory
    RegistryObject nextHandle_ = 1;
};

}  // namespace vantorix
