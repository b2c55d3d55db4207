#include "platform/PropertyValue.h"

#include <cmath>
#include <limits>

namespace vantorix {

double PropertyNumber::asDouble() const {
    return std::visit([](auto v) { return static_cast<double>(v); }, value_);
}

std::uint64_t PropertyNumber::asUInt64() const {
    if (const auto* s = std::get_if<std::int64_t>(&value_)) return static_cast<std::uint64_t>(*s);
    if (const auto* u = std::get_if<std::uint64_t>(&value_)) return *u;
    const double d = std::get<double>(value_);
    if (!(d > 0)) return 0;
    if (d >= 18446744073709551615.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(d);
}

std::optional<std::int64_t> PropertyNumber::asExactInt64() const {
    if (const auto* s = std::get_if<std::int64_t>(&value_)) return *s;
    if (const auto* u = std::get_if<std::uint64_t>(&value_)) {
        if (*u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return static_cast<std::int64_t>(*u);
        return std::nullopt;
    }
    const double d = std::get<double>(value_);
    if (std::isfinite(d) && std::trunc(d) == d && std::fabs(d) < 9.2e18) return static_cast<std::int64_t>(d);
    return std::nullopt;
}

const PropertyDictionary* PropertyValue::dictionary() const {
    const auto* p = std::get_if<std::shared_ptr<const PropertyDictionary>>(&storage_);
    return p != nullptr ? p->get() : nullptr;
}

const PropertyArray* PropertyValue::array() const {
    const auto* p = std::get_if<std::shared_ptr<const PropertyArray>>(&storage_);
    return p != nullptr ? p->get() : nullptr;
}

PropertyMap::PropertyMap(std::initializer_list<std::pair<std::string, PropertyValue>> entries) {
    for (const auto& [key, value] : entries) set(key, value);
}

PropertyMap& PropertyMap::set(std::string key, PropertyValue value) {
    for (auto& entry : entries_) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return *this;
        }
    }
    entries_.emplace_back(std::move(key), std::move(value));
    return *this;
}

std::vector<std::string> PropertyMap::keys() const {
    std::vector<std::string> result;
    result.reserve(entries_.size());
    for (const auto& entry : entries_) result.push_back(entry.first);
    return result;
}

std::optional<PropertyValue> PropertyMap::find(std::string_view key) const {
    for (const auto& entry : entries_) {
        if (entry.first == key) return entry.second;
    }
    return std::nullopt;
}

std::shared_ptr<const PropertyDictionary> makeDictionary(
    std::initializer_list<std::pair<std::string, PropertyValue>> entries) {
    return std::make_shared<const PropertyMap>(entries);
}

}  // namespace vantorix
