#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/BlockStatistics.h"
#include "util/Result.h"

namespace vantorix {

// The bus a block device is attached by: the first device of a known bus found walking up from the
// block device (a stacked device, such as dm-crypt or md, is followed down to its first member).
enum class BusKind {
    unknown,      // nothing known above the device
    pciExpress,   // a PCI function with a PCI Express link, or an NVMe controller on PCIe
    pci,          // a PCI function without link attributes
    nvmeFabrics,  // an NVMe controller reached over a network transport
    sata,         // a libata port
    usb,
    thunderbolt,
    virtio,
    mmc,            // SD and MMC cards
    virtualDevice,  // a device the kernel makes up (loop, zram, dm without members)
};

// A link as the kernel writes it: "8.0 GT/s PCIe" with 4 lanes (PCI Express), "6.0 Gbps" (SATA),
// "5000" (USB, in Mb/s).
struct LinkState {
    std::string speed;
    std::optional<unsigned> width;  // PCI Express lanes

    friend bool operator==(const LinkState&, const LinkState&) = default;
};

// How a block device is attached, read from its sysfs ancestors. Each field comes from the nearest
// ancestor that has it; the link fields come from the nearest device of the bus the drive is on.
struct BlockAttachment {
    BusKind bus = BusKind::unknown;
    std::string nvmeTransport;  // "tcp", "rdma", "fc", ... for nvmeFabrics

    std::optional<LinkState> link;     // as negotiated
    std::optional<LinkState> maxLink;  // PCI Express: the function's own top speed and width; SATA: the port's limit
    std::optional<std::string> usbVersion;  // the version a USB device declares, as sysfs writes it (" 3.20")
    std::optional<unsigned> thunderboltGeneration;

    std::optional<std::string> vendor;       // a name: the SCSI vendor, the USB manufacturer string
    std::optional<std::string> model;        // the SCSI or NVMe model, the USB product string, an SD card's name
    std::optional<std::uint16_t> vendorId;   // the PCI, virtio or USB vendor id
    std::optional<std::uint16_t> productId;  // the USB product id
    std::optional<std::string> serial;
    std::optional<std::string> wwn;  // the kernel's world-wide identifier (`wwid`): "naa.…", "eui.…", "t10.…"
    std::optional<std::string> backingFile;  // a loop device's file (`loop/backing_file`)

    friend bool operator==(const BlockAttachment&, const BlockAttachment&) = default;
};

// How a disk takes requests (its `queue/` and `mq/` entries). A device that serves several requests
// at once (several hardware queues, or no rotating platter) can be busy all the time without being
// saturated.
struct BlockQueue {
    std::optional<std::uint64_t> requests;   // how many requests the block layer queues for it (`nr_requests`)
    std::optional<unsigned> hardwareQueues;  // the multi-queue block layer's hardware queues
    std::optional<bool> rotational;

    friend bool operator==(const BlockQueue&, const BlockQueue&) = default;
};

// One block device as the kernel describes it in sysfs.
struct BlockDevice {
    std::string name;  // the kernel's name: "sda1", "nvme0n1", "dm-0"
    unsigned major = 0;
    unsigned minor = 0;
    std::optional<std::string> wholeDisk;  // the disk a partition belongs to: "sda1" → "sda"
    std::vector<std::string> members;      // what a stacked device is built on (`slaves/`), by name
    std::optional<std::string>
        nvmeController;  // the controller of an NVMe namespace (not of its partitions): "nvme0n1" → "nvme0"
    BlockAttachment attachment;
    std::optional<BlockQueue> queue;  // a partition's is its disk's; nothing for a device without a queue

    friend bool operator==(const BlockDevice&, const BlockDevice&) = default;
};

// What went wrong reading a block device's sysfs entry.
struct BlockDeviceError {
    enum class Kind {
        notFound,    // no such block device
        unreadable,  // its entry exists but cannot be read
        malformed,   // it was read but is not what the kernel writes
    };
    Kind kind = Kind::notFound;
    std::string path;     // the sysfs path concerned
    int errorNumber = 0;  // the system's error, when there is one

    // "/sys/class/block/sdz/stat: No such file or directory", "/sys/class/block/sda/stat: malformed".
    std::string detail() const;
};

// The `stat` file of one block device, kept open so that each reading costs one pread.
class BlockStatisticsFile {
public:
    virtual ~BlockStatisticsFile() = default;
    virtual Result<BlockStatistics, BlockDeviceError> read() = 0;

protected:
    BlockStatisticsFile() = default;
    BlockStatisticsFile(const BlockStatisticsFile&) = default;
    BlockStatisticsFile& operator=(const BlockStatisticsFile&) = default;
};

// The system's block devices, by kernel name. Safe to use from several threads at once.
class BlockDevices {
public:
    virtual ~BlockDevices() = default;
    virtual Result<BlockDevice, BlockDeviceError> device(std::string_view name) = 0;
    virtual Result<std::unique_ptr<BlockStatisticsFile>, BlockDeviceError> openStatistics(std::string_view name) = 0;

protected:
    BlockDevices() = default;
    BlockDevices(const BlockDevices&) = default;
    BlockDevices& operator=(const BlockDevices&) = default;
};

}  // namespace vantorix
