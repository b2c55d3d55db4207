#pragma once

#include <string>

namespace vantorix {

// One entry of the SMART key catalogue: the labels of a smartctl JSON key path and whether a value
// found there becomes a display row. `key` is index-free: "[]" stands for any element of an array.
struct SMARTKeyDescriptor {
    std::string key;
    std::string displayNameChinese;
    std::string displayNameEnglish;
    bool shouldDisplay = true;

    const std::string& displayName(bool english) const { return english ? displayNameEnglish : displayNameChinese; }
    // The label in the interface language in force at the moment of the call.
    const std::string& localizedDisplayName() const;

    friend bool operator==(const SMARTKeyDescriptor&, const SMARTKeyDescriptor&) = default;
};

}  // namespace vantorix
