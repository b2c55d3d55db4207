#pragma once

#include <string>
#include <string_view>

#include "protocol/SmartctlHelperProtocol.h"
#include "util/Result.h"

namespace vantorix::helper {

// Where device names are looked up: the sysfs and /dev roots (fixture trees in tests).
struct DeviceRoots {
    std::string sysfs = "/sys";
    std::string dev = "/dev";
};

// The longest device name the helper accepts.
inline constexpr std::size_t kMaximumDeviceNameLength = 64;

// The /dev path of a device a client names, after checking that the name is a bare kernel name
// (ASCII letters, digits and "_.:-", 1 to 64 characters, not starting with "-" or ".") of a device
// under <sysfs>/class/block or <sysfs>/class/nvme whose <dev>/NAME node is, without following
// symbolic links, a block (class/block) or character (class/nvme) device with the major:minor of
// the sysfs node's "dev" attribute. Refusals are invalidDeviceName (syntax) or deviceNotFound.
Result<std::string, protocol::HelperError> validatedDevicePath(std::string_view name, const DeviceRoots& roots);

// The name as it may appear in a log line or an error description: bytes outside printable
// ASCII as \xNN, cut after 64 characters.
std::string sanitizedName(std::string_view name);

}  // namespace vantorix::helper
