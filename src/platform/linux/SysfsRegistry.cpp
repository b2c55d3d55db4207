#include "platform/linux/SysfsRegistry.h"

#include <sys/stat.h>

#include <utility>

#include "platform/linux/SysfsNode.h"
#include "platform/linux/SysfsTree.h"

namespace vantorix {

namespace fs = std::filesystem;

SysfsRegistry::SysfsRegistry(fs::path sysfsRoot) : tree_(std::make_shared<const sysfs::SysfsTree>(sysfsRoot)) {}

SysfsRegistry::~SysfsRegistry() = default;

std::optional<MatchingDescription> SysfsRegistry::bsdNameMatching(std::string_view deviceName) {
    if (deviceName.empty() || deviceName == "." || deviceName == ".." || deviceName.find('/') != std::string_view::npos ||
        deviceName.find('\0') != std::string_view::npos)
        return std::nullopt;
    return MatchingDescription{std::string(deviceName)};
}

Result<RegistryObject, KernReturn> SysfsRegistry::getMatchingServices(const MatchingDescription& matching) {
    if (!bsdNameMatching(matching.deviceName)) return Failure{kIOReturnBadArgument};
    Object iterator;
    if (auto dir = tree_->blockDevice(matching.deviceName)) iterator.matches.push_back(std::move(*dir));
    std::lock_guard lock(mutex_);
    const RegistryObject handle = allocateHandleLocked();
    objects_.emplace(handle, std::move(iterator));
    return handle;
}

RegistryObject SysfsRegistry::iteratorNext(RegistryObject iterator) {
    for (;;) {
        fs::path dir;
        {
            std::lock_guard lock(mutex_);
            const auto it = objects_.find(iterator);
            if (it == objects_.end() || it->second.node != nullptr) return kNoRegistryObject;
            Object& object = it->second;
            if (object.next >= object.matches.size()) return kNoRegistryObject;
            dir = std::move(object.matches[object.next++]);
        }
        // A match whose directory went away since the iterator was made is skipped.
        if (auto service = acquireService(dir)) return *service;
    }
}

Result<std::optional<PropertyValue>, KernReturn> SysfsRegistry::copyProperties(RegistryObject service) {
    auto node = nodeOf(service);
    if (node == nullptr) return Failure{kIOReturnBadArgument};
    if (!node->present()) return Failure{kIOReturnNoDevice};
    return std::optional<PropertyValue>(PropertyValue(std::shared_ptr<const PropertyDictionary>(std::move(node))));
}

Result<RegistryObject, KernReturn> SysfsRegistry::parentEntry(RegistryObject service, std::string_view plane) {
    const auto node = nodeOf(service);
    if (node == nullptr) return Failure{kIOReturnBadArgument};
    if (plane != kServicePlane) return Failure{kIOReturnNotFound};
    auto parent = tree_->parentOf(node->dir(), node->subsystem());
    if (!parent) return Failure{kIOReturnNotFound};
    return acquireService(*parent);
}

std::optional<std::string> SysfsRegistry::className(RegistryObject service) {
    const auto node = nodeOf(service);
    if (node == nullptr || node->subsystem().empty()) return std::nullopt;
    return node->subsystem();
}

Result<std::uint64_t, KernReturn> SysfsRegistry::registryEntryId(RegistryObject service) {
    const auto node = nodeOf(service);
    if (node == nullptr) return Failure{kIOReturnBadArgument};
    if (!node->present()) return Failure{kIOReturnNoDevice};
    return node->inode();
}

void SysfsRegistry::retain(RegistryObject object) {
    std::lock_guard lock(mutex_);
    const auto it = objects_.find(object);
    if (it != objects_.end()) ++it->second.references;
}

void SysfsRegistry::release(RegistryObject object) {
    std::shared_ptr<const sysfs::SysfsNode> freed;  // closed after the lock is given back
    std::lock_guard lock(mutex_);
    const auto it = objects_.find(object);
    if (it == objects_.end() || --it->second.references > 0) return;
    freed = std::move(it->second.node);
    if (freed != nullptr) {
        const auto byPath = services_.find(freed->dir().native());
        if (byPath != services_.end() && byPath->second == object) services_.erase(byPath);
    }
    objects_.erase(it);
}

std::optional<fs::path> SysfsRegistry::servicePath(RegistryObject service) const {
    const auto node = nodeOf(service);
    if (node == nullptr) return std::nullopt;
    return node->dir();
}

std::size_t SysfsRegistry::liveObjectCount() const {
    std::lock_guard lock(mutex_);
    return objects_.size();
}

Result<RegistryObject, KernReturn> SysfsRegistry::acquireService(const fs::path& dir) {
    struct stat info {};
    if (::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return Failure{kIOReturnNoDevice};
    const auto inode = static_cast<std::uint64_t>(info.st_ino);
    {
        std::lock_guard lock(mutex_);
        if (const RegistryObject existing = existingServiceLocked(dir, inode)) return existing;
    }
    auto node = std::make_shared<const sysfs::SysfsNode>(tree_, dir, sysfs::subsystemOf(dir), inode);
    std::lock_guard lock(mutex_);
    // Another thread may have made the same service while the subsystem link was read.
    if (const RegistryObject existing = existingServiceLocked(dir, inode)) return existing;
    const RegistryObject handle = allocateHandleLocked();
    Object object;
    object.node = std::move(node);
    objects_.emplace(handle, std::move(object));
    // A directory that was removed and made again is a new device: it gets a handle of its own and
    // the old handle stays with whoever holds it.
    services_[dir.native()] = handle;
    return handle;
}

RegistryObject SysfsRegistry::existingServiceLocked(const fs::path& dir, std::uint64_t inode) {
    const auto byPath = services_.find(dir.native());
    if (byPath == services_.end()) return kNoRegistryObject;
    Object& object = objects_.at(byPath->second);
    if (object.node->inode() != inode) return kNoRegistryObject;
    ++object.references;
    return byPath->second;
}

std::shared_ptr<const sysfs::SysfsNode> SysfsRegistry::nodeOf(RegistryObject service) const {
    std::lock_guard lock(mutex_);
    const auto it = objects_.find(service);
    if (it == objects_.end()) return nullptr;
    return it->second.node;
}

RegistryObject SysfsRegistry::allocateHandleLocked() {
    for (;;) {
        const RegistryObject handle = nextHandle_++;
        if (nextHandle_ == kNoRegistryObject) nextHandle_ = 1;
        if (handle != kNoRegistryObject && objects_.find(handle) == objects_.end()) return handle;
    }
}

}  // namespace vantorix
