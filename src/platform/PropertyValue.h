#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vantorix {

class PropertyDictionary;
class PropertyValue;
using PropertyArray = std::vector<PropertyValue>;
using PropertyBytes = std::vector<std::uint8_t>;

// A number as a device registry reports it: signed, unsigned or floating point.
class PropertyNumber {
public:
    PropertyNumber(std::int64_t v) : value_(v) {}   // NOLINT(google-explicit-constructor)
    PropertyNumber(std::uint64_t v) : value_(v) {}  // NOLINT
    PropertyNumber(double v) : value_(v) {}         // NOLINT

    bool isInteger() const { return !std::holds_alternative<double>(value_); }
    double asDouble() const;
    // The value read as an unsigned 64-bit integer: negative integers wrap, reals are truncated
    // (and clamped to the representable range).
    std::uint64_t asUInt64() const;
    // The value when it is an integer that fits in int64, or a real with no fraction part.
    std::optional<std::int64_t> asExactInt64() const;

    friend bool operator==(const PropertyNumber&, const PropertyNumber&) = default;

private:
    std::variant<std::int64_t, std::uint64_t, double> value_;
};

// One value of a registry property dictionary.
class PropertyValue {
public:
    using Storage = std::variant<std::string, PropertyNumber, bool, PropertyBytes,
                                 std::shared_ptr<const PropertyDictionary>, std::shared_ptr<const PropertyArray>>;

    PropertyValue(std::string v) : storage_(std::move(v)) {}                 // NOLINT
    PropertyValue(const char* v) : storage_(std::string(v)) {}               // NOLINT
    PropertyValue(PropertyNumber v) : storage_(v) {}                         // NOLINT
    PropertyValue(std::int64_t v) : storage_(PropertyNumber(v)) {}           // NOLINT
    PropertyValue(std::uint64_t v) : storage_(PropertyNumber(v)) {}          // NOLINT
    PropertyValue(int v) : storage_(PropertyNumber(std::int64_t{v})) {}      // NOLINT
    PropertyValue(double v) : storage_(PropertyNumber(v)) {}                 // NOLINT
    PropertyValue(bool v) : storage_(v) {}                                   // NOLINT
    PropertyValue(PropertyBytes v) : storage_(std::move(v)) {}               // NOLINT
    PropertyValue(std::shared_ptr<const PropertyDictionary> v) : storage_(std::move(v)) {}  // NOLINT
    PropertyValue(std::shared_ptr<const PropertyArray> v) : storage_(std::move(v)) {}       // NOLINT
    PropertyValue(PropertyArray v) : storage_(std::make_shared<const PropertyArray>(std::move(v))) {}  // NOLINT

    const std::string* string() const { return std::get_if<std::string>(&storage_); }
    const PropertyNumber* number() const { return std::get_if<PropertyNumber>(&storage_); }
    const bool* boolean() const { return std::get_if<bool>(&storage_); }
    const PropertyBytes* bytes() const { return std::get_if<PropertyBytes>(&storage_); }
    const PropertyDictionary* dictionary() const;
    const PropertyArray* array() const;

    const Storage& storage() const { return storage_; }

private:
    Storage storage_;
};

// A dictionary keyed by strings. Implementations may produce values lazily: `find` may read
// the value at the moment it is looked up.
class PropertyDictionary {
public:
    virtual ~PropertyDictionary() = default;
    // Keys in the dictionary's own iteration order.
    virtual std::vector<std::string> keys() const = 0;
    virtual std::optional<PropertyValue> find(std::string_view key) const = 0;
};

// An in-memory dictionary that keeps its insertion order.
class PropertyMap final : public PropertyDictionary {
public:
    PropertyMap() = default;
    PropertyMap(std::initializer_list<std::pair<std::string, PropertyValue>> entries);

    PropertyMap& set(std::string key, PropertyValue value);
    std::vector<std::string> keys() const override;
    std::optional<PropertyValue> find(std::string_view key) const override;
    bool empty() const { return entries_.empty(); }

    std::shared_ptr<const PropertyDictionary> share() && {
        return std::make_shared<const PropertyMap>(std::move(*this));
    }

private:
    std::vector<std::pair<std::string, PropertyValue>> entries_;
};

// Shorthand for building nested dictionaries in code and tests.
std::shared_ptr<const PropertyDictionary> makeDictionary(
    std::initializer_list<std::pair<std::string, PropertyValue>> entries);

}  // namespace vantorix
