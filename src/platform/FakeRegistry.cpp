#include "platform/FakeRegistry.h"

#include <algorithm>

namespace vantorix {

FakeRegistry::ServiceId FakeRegistry::addService(ServiceSpec spec) {
    std::lock_guard lock(mutex_);
    Service service;
    service.spec = std::move(spec);
    services_.push_back(std::move(service));
    return static_cast<ServiceId>(services_.size());
}

FakeRegistry::ServiceId FakeRegistry::addService(std::string className,
                                                 std::shared_ptr<const PropertyDictionary> properties,
                                                 std::optional<ServiceId> parent,
                                                 std::optional<std::uint64_t> entryId) {
    ServiceSpec spec;
    spec.className = std::move(className);
    spec.properties = PropertyValue(std::move(properties));
    spec.parent = parent;
    spec.entryId = entryId;
    const ServiceId id = addService(std::move(spec));
    if (!entryId) {
        std::lock_guard lock(mutex_);
        services_[id - 1].spec.entryId = 0x100000000ull + id;
    }
    return id;
}

void FakeRegistry::addMatch(const std::string& deviceName, ServiceId service) {
    std::lock_guard lock(mutex_);
    matches_[deviceName].push_back(service);
}

void FakeRegistry::clearMatches(const std::string& deviceName) {
    std::lock_guard lock(mutex_);
    matches_.erase(deviceName);
}

void FakeRegistry::setProperties(ServiceId id, std::optional<PropertyValue> properties) {
    std::lock_guard lock(mutex_);
    services_.at(id - 1).spec.properties = std::move(properties);
}

void FakeRegistry::setCopyPropertiesFailure(ServiceId id, std::optional<KernReturn> code) {
    std::lock_guard lock(mutex_);
    services_.at(id - 1).copyFailure = code;
}

void FakeRegistry::removeService(ServiceId id) {
    std::lock_guard lock(mutex_);
    services_.at(id - 1).removed = true;
    for (auto& [name, list] : matches_) list.erase(std::remove(list.begin(), list.end(), id), list.end());
}

FakeRegistry::Service* FakeRegistry::service(RegistryObject object) {
    if (object == kNoRegistryObject || object > services_.size()) return nullptr;
    return &services_[object - 1];
}

const FakeRegistry::Service* FakeRegistry::service(RegistryObject object) const {
    if (object == kNoRegistryObject || object > services_.size()) return nullptr;
    return &services_[object - 1];
}

int FakeRegistry::referenceCount(RegistryObject object) const {
    std::lock_guard lock(mutex_);
    if (const auto* s = service(object)) return s->references;
    const auto it = iterators_.find(object);
    return it != iterators_.end() ? it->second.references : 0;
}

int FakeRegistry::outstandingReferences() const {
    std::lock_guard lock(mutex_);
    int total = 0;
    for (const auto& s : services_) total += s.references;
    for (const auto& [handle, it] : iterators_) total += it.references;
    return total;
}

int FakeRegistry::copyCount(ServiceId id) const {
    std::lock_guard lock(mutex_);
    return services_.at(id - 1).copies;
}

int FakeRegistry::totalCopyCount() const {
    std::lock_guard lock(mutex_);
    int total = 0;
    for (const auto& s : services_) total += s.copies;
    return total;
}

std::optional<MatchingDescription> FakeRegistry::bsdNameMatching(std::string_view deviceName) {
    std::lock_guard lock(mutex_);
    if (failBsdNameMatching_) return std::nullopt;
    return MatchingDescription{std::string(deviceName)};
}

Result<RegistryObject, KernReturn> FakeRegistry::getMatchingServices(const MatchingDescription& matching) {
    std::lock_guard lock(mutex_);
    if (failMatching_) return Failure{*failMatching_};
    Iterator iterator;
    if (const auto it = matches_.find(matching.deviceName); it != matches_.end()) iterator.services = it->second;
    iterator.references = 1;
    const RegistryObject handle = nextIterator_++;
    iterators_.emplace(handle, std::move(iterator));
    return handle;
}

RegistryObject FakeRegistry::iteratorNext(RegistryObject handle) {
    std::lock_guard lock(mutex_);
    const auto it = iterators_.find(handle);
    if (it == iterators_.end() || it->second.next >= it->second.services.size()) return kNoRegistryObject;
    const ServiceId id = it->second.services[it->second.next++];
    services_[id - 1].references += 1;
    return handleOf(id);
}

Result<std::optional<PropertyValue>, KernReturn> FakeRegistry::copyProperties(RegistryObject object) {
    std::lock_guard lock(mutex_);
    Service* s = service(object);
    if (s == nullptr || s->removed) return Failure{kIOReturnNoDevice};
    s->copies += 1;
    if (s->copyFailure) return Failure{*s->copyFailure};
    return s->spec.properties;
}

Result<RegistryObject, KernReturn> FakeRegistry::parentEntry(RegistryObject object, std::string_view plane) {
    std::lock_guard lock(mutex_);
    if (plane != kServicePlane) return Failure{kIOReturnBadArgument};
    Service* s = service(object);
    if (s == nullptr || s->removed) return Failure{kIOReturnNoDevice};
    if (!s->spec.parent) return Failure{kIOReturnNotFound};
    Service* parent = service(*s->spec.parent);
    if (parent == nullptr || parent->removed) return Failure{kIOReturnNotFound};
    parent->references += 1;
    return handleOf(*s->spec.parent);
}

std::optional<std::string> FakeRegistry::className(RegistryObject object) {
    std::lock_guard lock(mutex_);
    const Service* s = service(object);
    return s != nullptr ? s->spec.className : std::nullopt;
}

Result<std::uint64_t, KernReturn> FakeRegistry::registryEntryId(RegistryObject object) {
    std::lock_guard lock(mutex_);
    const Service* s = service(object);
    if (s == nullptr || !s->spec.entryId) return Failure{kIOReturnNotFound};
    return *s->spec.entryId;
}

void FakeRegistry::retain(RegistryObject object) {
    std::lock_guard lock(mutex_);
    if (Service* s = service(object)) s->references += 1;
    else if (auto it = iterators_.find(object); it != iterators_.end()) it->second.references += 1;
}

void FakeRegistry::release(RegistryObject object) {
    std::lock_guard lock(mutex_);
    int* references = nullptr;
    if (Service* s = service(object)) references = &s->references;
    else if (auto it = iterators_.find(object); it != iterators_.end()) references = &it->second.references;
    if (references == nullptr || *references <= 0) {
        ++overReleases_;
        return;
    }
    *references -= 1;
}

}  // namespace vantorix
