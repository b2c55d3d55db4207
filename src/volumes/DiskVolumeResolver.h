#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/PropertyValue.h"
#include "platform/Registry.h"
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

    struct ConnectionMetadata {
        std::string type;
        std::optional<std::string> speed;
        std::optional<std::string> vendor;
        std::optional<std::string> product;

        friend bool operator==(const ConnectionMetadata&, const ConnectionMetadata&) = default;
    };

    // `url` is a path, absolute or relative to the working directory, or a "file://" URL.
    static Result<DiskVolumeDescriptor, MonitorError> resolve(std::string_view url, VolumeInfoSource& files,
                                                              Registry& registry);
    static ConnectionMetadata connectionMetadata(Registry& registry, std::string_view deviceName);
    // The figures of the link the device behind `deviceName` hangs on, found on the nearest service
    // (the matched one or an ancestor) that has them for the kind of bus the device is on; nothing
    // for buses without such figures (virtual devices, virtio, network transports).
    static std::optional<LinkCeiling> linkCeiling(Registry& registry, std::string_view deviceName);
    // The link figures one service's properties hold for a bus of `kind`: "LinkDescription" and
    // "MaxLinkDescription" for PCIe and SATA, "Device Speed" with "version" or "bcdUSB" for USB,
    // "ThunderboltGeneration" for Thunderbolt.
    static std::optional<LinkCeiling> linkFacts(LinkKind kind, const PropertyDictionary& properties);

    // The pieces of the connection rules, exposed for tests and for reuse.
    static std::optional<std::string> linkSpeed(const PropertyDictionary& properties);
    static std::optional<std::string> speedText(double value);
    static std::optional<std::string> describeLinkText(std::string_view text);
    static std::optional<std::string> vendor(const PropertyDictionary& properties);
    static std::optional<std::string> model(const PropertyDictionary& properties);

    struct UsbRow {
        std::string type;
        std::string speed;
    };
    static std::optional<UsbRow> usbLookup(const PropertyDictionary& properties);
};

}  // namespace vantorix
