#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/PropertyValue.h"
#include "util/Result.h"

namespace vantorix {

// A handle to a registry object (a service or an iterator). 0 is no object.
using RegistryObject = std::uint32_t;
inline constexpr RegistryObject kNoRegistryObject = 0;

// Result codes of registry operations; 0 is success.
using KernReturn = std::int32_t;
inline constexpr KernReturn kIOReturnSuccess = 0;
inline constexpr KernReturn kIOReturnError = static_cast<KernReturn>(0xE00002BCu);
inline constexpr KernReturn kIOReturnNoMemory = static_cast<KernReturn>(0xE00002BDu);
inline constexpr KernReturn kIOReturnNoResources = static_cast<KernReturn>(0xE00002BEu);
inline constexpr KernReturn kIOReturnBadArgument = static_cast<KernReturn>(0xE00002C2u);
inline constexpr KernReturn kIOReturnNoDevice = static_cast<KernReturn>(0xE00002C0u);
inline constexpr KernReturn kIOReturnNotReadable = static_cast<KernReturn>(0xE00002EAu);
inline constexpr KernReturn kIOReturnNotFound = static_cast<KernReturn>(0xE00002F0u);

inline constexpr std::string_view kServicePlane = "IOService";

// What bsdNameMatching builds and getMatchingServices consumes.
struct MatchingDescription {
    std::string deviceName;
};

// The device registry: a tree of services, each with a class name, a 64-bit entry ID and a
// dictionary of properties keyed by strings.
//
// Ownership: every handle returned by getMatchingServices, iteratorNext or parentEntry carries
// one reference that the caller owns and gives back with release(). retain() takes another.
// A handle stays valid while it has references. Implementations are safe to call from several
// threads at once.
class Registry {
public:
    virtual ~Registry() = default;

    // A matching description for a BSD name; nothing when none can be built.
    virtual std::optional<MatchingDescription> bsdNameMatching(std::string_view deviceName) = 0;
    // An iterator over every service matching the description (possibly none), or a non-zero code.
    virtual Result<RegistryObject, KernReturn> getMatchingServices(const MatchingDescription& matching) = 0;
    // The next matched service, or kNoRegistryObject at the end.
    virtual RegistryObject iteratorNext(RegistryObject iterator) = 0;
    // A copy of the service's properties. A successful copy may still hold nothing, or a value
    // that is not a dictionary.
    virtual Result<std::optional<PropertyValue>, KernReturn> copyProperties(RegistryObject service) = 0;
    // The parent of a service in the given plane, or a non-zero code at the root.
    virtual Result<RegistryObject, KernReturn> parentEntry(RegistryObject service, std::string_view plane) = 0;
    // The service's class name, when it can be read.
    virtual std::optional<std::string> className(RegistryObject service) = 0;
    // The service's 64-bit registry entry ID, or a non-zero code.
    virtual Result<std::uint64_t, KernReturn> registryEntryId(RegistryObject service) = 0;

    virtual void retain(RegistryObject object) = 0;
    virtual void release(RegistryObject object) = 0;
};

// Owns one reference to a registry object and gives it back when it goes out of scope.
class RegistryRef {
public:
    RegistryRef() = default;
    RegistryRef(Registry& registry, RegistryObject object) : registry_(&registry), object_(object) {}
    RegistryRef(const RegistryRef&) = delete;
    RegistryRef& operator=(const RegistryRef&) = delete;
    RegistryRef(RegistryRef&& other) noexcept : registry_(other.registry_), object_(other.take()) {}
    RegistryRef& operator=(RegistryRef&& other) noexcept {
        if (this != &other) {
            reset();
            registry_ = other.registry_;
            object_ = other.take();
        }
        return *this;
    }
    ~RegistryRef() { reset(); }

    RegistryObject get() const { return object_; }
    explicit operator bool() const { return object_ != kNoRegistryObject; }
    // Hands the reference to the caller.
    RegistryObject take() {
        const RegistryObject object = object_;
        object_ = kNoRegistryObject;
        return object;
    }
    void reset() {
        if (registry_ != nullptr && object_ != kNoRegistryObject) registry_->release(object_);
        object_ = kNoRegistryObject;
    }

private:
    Registry* registry_ = nullptr;
    RegistryObject object_ = kNoRegistryObject;
};

}  // namespace vantorix
