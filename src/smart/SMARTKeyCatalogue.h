#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "smart/SMARTKeyDescriptor.h"

namespace vantorix::SMARTKeyCatalogue {

struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const noexcept { return std::hash<std::string_view>{}(key); }
};
using Map = std::unordered_map<std::string, SMARTKeyDescriptor, KeyHash, std::equal_to<>>;

// Every known key path, built once on first use (safe when first use happens on several threads at
// once) and never changed afterwards.
const Map& entries();

// The key path with every "[" decimal digits "]" replaced by "[]": `table[10].raw` → `table[].raw`.
// Digits are Unicode decimal digits, as in the regular expression class \d.
std::string normalizedKeyPath(std::string_view keyPath);

// The entry of a concrete key path (indices ignored, otherwise exact and case-sensitive), or null.
// Entries live for the rest of the program.
const SMARTKeyDescriptor* descriptor(std::string_view keyPath);

}  // namespace vantorix::SMARTKeyCatalogue
