#include "platform/BlockDevice.h"

#include <system_error>

namespace vantorix {

std::string BlockDeviceError::detail() const {
    if (errorNumber != 0) return path + ": " + std::generic_category().message(errorNumber);
    switch (kind) {
        case Kind::notFound: return path + ": no such block device";
        case Kind::unreadable: return path + ": unreadable";
        case Kind::malformed: return path + ": malformed";
    }
    return path;
}

}  // namespace vantorix
