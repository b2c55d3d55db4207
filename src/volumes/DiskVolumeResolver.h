#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/BlockDevice.h"
#include "platform/VolumeInfoSource.h"
#include "util/Result.h"
#include "volumes/DiskVolumeDescriptor.h"
#include "volumes/LinkCeiling.h"
#include "volumes/MonitorError.h"

namespace vantorix {

// Turns a chosen folder into a DiskVolumeDescriptor: the volume behind it, its capacities and
// how its device is attached.
struct DiskVolumeResolver {
    DiskVolumeResolver() = delete;

    // The attachment as people read it: "USB 3.0" at "5Gbps", "PCIe" at "8.0 GT/s PCIe x4".
    struct ConnectionMetadata {
        std::string type;
        std::optional<std::string> speed;
        std::optional<std::string> vendor;
        std::optional<std::string> product;

        friend bool operator==(const ConnectionMetadata&, const ConnectionMetadata&) = default;
    };

    // `url` is a path, absolute or relative to the working directory, or a "file://" URL.
    static Result<DiskVolumeDescriptor, MonitorError> resolve(std::string_view url, VolumeInfoSource& files,
                                                              BlockDevices& devices);
    static ConnectionMetadata connectionMetadata(const BlockAttachment& attachment);
    // The figures of the link the drive hangs on; nothing for buses without such figures (virtual
    // devices, virtio, network transports) or when the link does not report them.
    static std::optional<LinkCeiling> linkCeiling(const BlockAttachment& attachment);
};

}  // namespace vantorix
