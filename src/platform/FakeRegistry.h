#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Registry.h"

namespace vantorix {

// An in-memory registry for tests: a tree of services with property dictionaries, BSD-name
// matches and injectable failures. It counts references so that tests can check that every
// handle taken was given back exactly once.
class FakeRegistry final : public Registry {
public:
    using ServiceId = std::uint32_t;

    struct ServiceSpec {
        std::optional<std::string> className;
        std::optional<PropertyValue> properties;  // nothing: a copy that yields no properties
        std::optional<ServiceId> parent;
        std::optional<std::uint64_t> entryId;     // nothing: the ID cannot be read
    };

    ServiceId addService(ServiceSpec spec);
    // Shorthand: a service with a dictionary of properties.
    ServiceId addService(std::string className, std::shared_ptr<const PropertyDictionary> properties,
                         std::optional<ServiceId> parent = std::nullopt,
                         std::optional<std::uint64_t> entryId = std::nullopt);
    // Makes the service one of the matches of `deviceName`, after those added before.
    void addMatch(const std::string& deviceName, ServiceId service);
    void clearMatches(const std::string& deviceName);

    void setProperties(ServiceId service, std::optional<PropertyValue> properties);
    void setCopyPropertiesFailure(ServiceId service, std::optional<KernReturn> code);
    // The service vanishes: copying its properties fails, its parent lookup fails, and it no
    // longer matches any BSD name. Handles already given out stay countable.
    void removeService(ServiceId service);
    void failBsdNameMatching(bool fail) { std::lock_guard l(mutex_); failBsdNameMatching_ = fail; }
    void failMatchingServices(std::optional<KernReturn> code) { std::lock_guard l(mutex_); failMatching_ = code; }

    // The handle under which a service is handed out.
    static RegistryObject handleOf(ServiceId service) { return service; }

    // References currently held on a service or iterator handle.
    int referenceCount(RegistryObject object) const;
    // Sum of references held on all services and iterators.
    int outstandingReferences() const;
    // Releases of objects that had no reference left (each is a bug in the caller).
    int overReleases() const { std::lock_guard l(mutex_); return overReleases_; }
    // Number of property copies made per service.
    int copyCount(ServiceId service) const;
    int totalCopyCount() const;

    std::optional<MatchingDescription> bsdNameMatching(std::string_view deviceName) override;
    Result<RegistryObject, KernReturn> getMatchingServices(const MatchingDescription& matching) override;
    RegistryObject iteratorNext(RegistryObject iterator) override;
    Result<std::optional<PropertyValue>, KernReturn> copyProperties(RegistryObject service) override;
    Result<RegistryObject, KernReturn> parentEntry(RegistryObject service, std::string_view plane) override;
    std::optional<std::string> className(RegistryObject service) override;
    Result<std::uint64_t, KernReturn> registryEntryId(RegistryObject service) override;
    void retain(RegistryObject object) override;
    void release(RegistryObject object) override;

private:
    struct Service {
        ServiceSpec spec;
        std::optional<KernReturn> copyFailure;
        bool removed = false;
        int references = 0;
        int copies = 0;
    };
    struct Iterator {
        std::vector<ServiceId> services;
        std::size_t next = 0;
        int references = 0;
    };
    static constexpr RegistryObject kFirstIterator = 0x40000000;

    Service* service(RegistryObject object);
    const Service* service(RegistryObject object) const;

    mutable std::mutex mutex_;
    std::vector<Service> services_;  // ServiceId n is services_[n - 1]
    std::map<std::string, std::vector<ServiceId>, std::less<>> matches_;
    std::map<RegistryObject, Iterator> iterators_;
    RegistryObject nextIterator_ = kFirstIterator;
    bool failBsdNameMatching_ = false;
    std::optional<KernReturn> failMatching_;
    int overReleases_ = 0;
};

}  // namespace vantorix
