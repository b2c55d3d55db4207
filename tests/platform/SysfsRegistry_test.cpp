#include "platform/linux/SysfsRegistry.h"

#include "SysfsTestSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using testing::describe;
using testing::sysfsFixture;
using testing::TreeCopy;

const std::string kNvmeController = "devices/pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0";
const std::string kNvmeFunction = "devices/pci0000:00/0000:00:1d.0/0000:3d:00.0";
const std::string kUsbStick = "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1.3";
const std::string kUsbStickDisk = kUsbStick + "/2-1.3:1.0/host6/target6:0:0/6:0:0:0/block/sdb";

// The one service that `deviceName` matches, with a reference for the caller; 0 when none does.
RegistryObject match(Registry& registry, std::string_view deviceName) {
    const auto iterator = registry.getMatchingServices(*registry.bsdNameMatching(deviceName));
    if (!iterator) return kNoRegistryObject;
    const RegistryObject service = registry.iteratorNext(*iterator);
    EXPECT_EQ(registry.iteratorNext(*iterator), kNoRegistryObject) << deviceName << " matched twice";
    registry.release(*iterator);
    return service;
}

RegistryRef serviceAt(Registry& registry, std::string_view deviceName, int depth) {
    RegistryRef current(registry, match(registry, deviceName));
    for (int level = 0; level < depth && current; ++level) {
        const auto parent = registry.parentEntry(current.get(), kServicePlane);
        current = parent ? RegistryRef(registry, *parent) : RegistryRef();
    }
    return current;
}

std::optional<PropertyValue> property(Registry& registry, RegistryObject service, std::string_view key) {
    const auto copy = registry.copyProperties(service);
    if (!copy || !*copy || (*copy)->dictionary() == nullptr) return std::nullopt;
    return (*copy)->dictionary()->find(key);
}

std::string stats(std::uint64_t bytesRead, std::uint64_t bytesWritten, std::uint64_t reads, std::uint64_t writes) {
    return "d:{Bytes (Read)=n:" + std::to_string(bytesRead) + ",Bytes (Write)=n:" + std::to_string(bytesWritten) +
           ",Operations (Read)=n:" + std::to_string(reads) + ",Operations (Write)=n:" + std::to_string(writes) + "}";
}

std::string on(const std::string& interconnect) { return "d:{Physical Interconnect=s:" + interconnect + "}"; }

struct PropertyCase {
    std::string machine;
    std::string deviceName;
    int depth;  // levels above the matched service
    std::string key;
    std::string expected;
};

void expectProperty(const fs::path& root, const PropertyCase& c) {
    SysfsRegistry registry(root);
    const RegistryRef service = serviceAt(registry, c.deviceName, c.depth);
    ASSERT_TRUE(service) << c.deviceName << " +" << c.depth;
    EXPECT_EQ(describe(property(registry, service.get(), c.key)), c.expected)
        << c.machine << ' ' << registry.servicePath(service.get())->filename() << ' ' << c.key;
}

TEST(SysfsRegistry, ParentsLeadFromEachBlockDeviceToATopLevelDirectory) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"nvme-laptop", "nvme0n1p1(block) nvme0n1(block) nvme0(nvme) nvme() 0000:3d:00.0(pci) 0000:00:1d.0(pci) "
                        "pci0000:00()"},
        {"usb-stick", "sdb1(block) sdb(block) block() 6:0:0:0(scsi) target6:0:0(scsi) host6(scsi) 2-1.3:1.0(usb) "
                      "2-1.3(usb) 2-1(usb) usb2(usb) 0000:00:14.0(pci) pci0000:00()"},
        {"sata-disk", "sda(block) block() 0:0:0:0(scsi) target0:0:0(scsi) host0(scsi) ata1() 0000:00:17.0(pci) "
                      "pci0000:00()"},
        {"virtio-disk", "vda1(block) vda(block) block() virtio1(virtio) 0000:00:02.0(pci) pci0000:00()"},
        {"loop", "loop0(block) block() virtual()"},
        {"dmcrypt-nvme", "dm-0(block) nvme0n1p3(block) nvme0n1(block) nvme0(nvme) nvme() 0000:3d:00.0(pci) "
                         "0000:00:1d.0(pci) pci0000:00()"},
    };
    for (const auto& [machine, expected] : cases) {
        SysfsRegistry registry(sysfsFixture(machine));
        RegistryRef current(registry, match(registry, expected.substr(0, expected.find('('))));
        std::string chain;
        KernReturn end = kIOReturnSuccess;
        while (current) {
            chain += (chain.empty() ? "" : " ") + registry.servicePath(current.get())->filename().native() + '(' +
                     registry.className(current.get()).value_or("") + ')';
            const auto parent = registry.parentEntry(current.get(), kServicePlane);
            if (!parent) end = parent.error();
            current = parent ? RegistryRef(registry, *parent) : RegistryRef();
        }
        EXPECT_EQ(chain, expected);
        EXPECT_EQ(end, kIOReturnNotFound) << machine;
        EXPECT_EQ(registry.liveObjectCount(), 0u) << machine;
    }
}

TEST(SysfsRegistry, StackedDeviceStandsOnItsFirstUsableSlaveByName) {
    const TreeCopy tree("dmcrypt-nvme");
    const std::string slaves = "devices/virtual/block/dm-0/slaves";
    const std::string disk = kNvmeController + "/nvme0n1";
    const std::vector<std::pair<std::function<void()>, std::string>> steps = {
        {[] {}, disk + "/nvme0n1p3"},
        {[&] { tree.link(slaves + "/nvme0n1p2", disk + "/nvme0n1p2"); }, disk + "/nvme0n1p2"},
        {[&] { fs::remove(tree / (slaves + "/nvme0n1p2")); tree.link(slaves + "/a", "gone"); }, disk + "/nvme0n1p3"},
        {[&] { fs::remove_all(tree / slaves); }, "devices/virtual/block"},
    };
    for (const auto& [change, expected] : steps) {
        change();
        SysfsRegistry registry(tree.root());
        const RegistryRef parent = serviceAt(registry, "dm-0", 1);
        EXPECT_EQ(registry.servicePath(parent.get()), fs::canonical(tree / expected));
    }
    SysfsRegistry registry(tree.root());
    EXPECT_FALSE(registry.parentEntry(RegistryRef(registry, match(registry, "nvme0n1")).get(), "IODeviceTree"));
}

TEST(SysfsRegistry, BsdNamesMatchTheirClassBlockEntry) {
    SysfsRegistry registry(sysfsFixture("usb-stick"));
    EXPECT_EQ(registry.servicePath(RegistryRef(registry, match(registry, "sdb1")).get())->filename(), "sdb1");
    EXPECT_EQ(match(registry, "sdz"), kNoRegistryObject);
    for (const std::string bad : {"", "..", "../sdb", "block/sdb"}) EXPECT_FALSE(registry.bsdNameMatching(bad)) << bad;
    EXPECT_EQ(registry.liveObjectCount(), 0u);
}

TEST(SysfsRegistry, PropertiesOfEachMachine) {
    const std::vector<PropertyCase> cases = {
        {"nvme-laptop", "nvme0n1", 0, "Statistics", stats(5056790528u, 3919011840u, 152340, 98211)},
        {"usb-stick", "sdb1", 0, "Statistics", stats(152136704, 268435456, 2101, 1024)},
        {"loop", "loop0", 0, "Statistics", stats(6153216, 0, 581, 0)},
        {"dmcrypt-nvme", "dm-0", 0, "Statistics", stats(4994463744u, 3918407680u, 150688, 110169)},
        {"nvme-laptop", "nvme0n1p2", 0, "Protocol Characteristics", on("PCI-Express")},
        {"usb-stick", "sdb1", 0, "Protocol Characteristics", on("USB")},
        {"sata-disk", "sda1", 0, "Protocol Characteristics", on("SATA")},
        {"virtio-disk", "vda", 0, "Protocol Characteristics", on("Virtio")},
        {"loop", "loop0", 0, "Protocol Characteristics", on("Virtual Interface")},
        {"dmcrypt-nvme", "dm-0", 0, "Protocol Characteristics", on("PCI-Express")},
        {"nvme-laptop", "nvme0n1", 0, "Physical Interconnect", "-"},
        {"nvme-laptop", "nvme0n1", 1, "Physical Interconnect", "s:PCI-Express"},
        {"nvme-laptop", "nvme0n1", 1, "model", "s:Samsung SSD 970 EVO Plus 1TB"},
        {"nvme-laptop", "nvme0n1", 3, "LinkDescription", "s:8.0 GT/s PCIe x4"},
        {"nvme-laptop", "nvme0n1", 3, "vendor-id", "n:5197"},
        {"nvme-laptop", "nvme0n1", 3, "Statistics", "-"},
        {"nvme-laptop", "nvme0n1", 3, "Protocol Characteristics", "-"},
        {"usb-stick", "sdb", 2, "vendor", "s:SanDisk "},
        {"usb-stick", "sdb", 2, "model", "s:Ultra Fit       "},
        {"usb-stick", "sdb", 5, "Physical Interconnect", "s:USB"},
        {"usb-stick", "sdb", 5, "Device Speed", "-"},
        {"usb-stick", "sdb", 6, "Device Speed", "n:3"},
        {"usb-stick", "sdb", 6, "idVendor", "n:1921"},
        {"usb-stick", "sdb", 8, "Device Speed", "n:4"},
        {"usb-stick", "sdb", 9, "Physical Interconnect", "s:PCI"},
        {"sata-disk", "sda", 4, "Physical Interconnect", "-"},
        {"sata-disk", "sda", 5, "Physical Interconnect", "s:SATA"},
        {"sata-disk", "sda", 5, "LinkDescription", "s:6.0 Gbps"},
        {"sata-3g", "sda", 5, "LinkDescription", "s:3.0 Gbps"},
        {"sata-3g", "sda", 5, "MaxLinkDescription", "s:6.0 Gbps"},
        {"nvme-x1", "nvme0n1", 3, "LinkDescription", "s:8.0 GT/s PCIe x1"},
        {"nvme-x1", "nvme0n1", 3, "MaxLinkDescription", "s:8.0 GT/s PCIe x4"},
        {"nvme-x1", "nvme0n1", 1, "MaxLinkDescription", "-"},
        {"virtio-disk", "vda", 0, "serial", "s:0123456789"},
        {"virtio-disk", "vda", 2, "vendor-id", "n:6900"},
    };
    for (const auto& c : cases) expectProperty(sysfsFixture(c.machine), c);
}

TEST(SysfsRegistry, AttachmentKeysFollowTheDeviceAttributes) {
    const std::string link1 = "devices/pci0000:00/0000:00:17.0/ata1/link1/ata_link/link1";
    const std::vector<std::pair<std::function<void(const TreeCopy&)>, PropertyCase>> cases = {
        {[&](auto& t) { t.write(kNvmeController + "/transport", "tcp\n"); },
         {"nvme-laptop", "nvme0n1", 0, "Protocol Characteristics", on("NVMe over TCP")}},
        {[&](auto& t) { fs::remove(t / (kNvmeController + "/transport")); },
         {"nvme-laptop", "nvme0n1", 1, "Physical Interconnect", "s:PCI-Express"}},
        {[&](auto& t) { t.write(kNvmeFunction + "/current_link_speed", "Unknown\n"); },
         {"nvme-laptop", "nvme0n1", 3, "LinkDescription", "-"}},
        {[&](auto& t) { fs::remove(t / (kNvmeFunction + "/current_link_width")); },
         {"nvme-laptop", "nvme0n1", 3, "LinkDescription", "s:8.0 GT/s PCIe"}},
        {[&](auto& t) { fs::remove(t / (kNvmeFunction + "/current_link_speed")); },
         {"nvme-laptop", "nvme0n1", 3, "Physical Interconnect", "s:PCI"}},
        {[&](auto& t) { t.write(kUsbStick + "/speed", "1.5\n"); }, {"usb-stick", "sdb", 6, "Device Speed", "n:0"}},
        {[&](auto& t) { t.write(kUsbStick + "/speed", "20000\n"); }, {"usb-stick", "sdb", 6, "Device Speed", "n:5"}},
        {[&](auto& t) { t.write(kUsbStick + "/speed", "40000\n"); }, {"usb-stick", "sdb", 6, "Device Speed", "-"}},
        {[&](auto& t) { t.write(link1 + "/sata_spd", "<unknown>\n"); },
         {"sata-disk", "sda", 5, "LinkDescription", "-"}},
        {[&](auto& t) { fs::remove_all(t / "devices/pci0000:00/0000:00:17.0/ata1/ata_port"); },
         {"sata-disk", "sda", 0, "Protocol Characteristics", on("PCI")}},
    };
    for (const auto& [change, c] : cases) {
        const TreeCopy tree(c.machine);
        change(tree);
        expectProperty(tree.root(), c);
    }
}

TEST(SysfsRegistry, ThunderboltAndMemoryCardDevices) {
    const TreeCopy tree;
    const std::string tb = "devices/pci0000:00/0000:00:0d.2/domain0/0-0/0-1";
    const std::string card = "devices/platform/fe320000.mmc/mmc_host/mmc0/mmc0:0001";
    tree.link(tb + "/subsystem", "bus/thunderbolt");
    tree.write(tb + "/generation", "3\n");
    tree.link(card + "/subsystem", "bus/mmc");
    for (const auto& [name, dir] : {std::pair{"sdt", tb}, std::pair{"mmcblk0", card}}) {
        tree.link(dir + "/block/" + name + "/subsystem", "class/block");
        tree.link(std::string("class/block/") + name, dir + "/block/" + name);
    }
    tree.write(card + "/block/mmcblk0/stat", "1 0 8 0 0 0 0 0 0 0 0\n");
    for (const auto& c : std::vector<PropertyCase>{
             {"", "mmcblk0", 0, "Protocol Characteristics", on("SD/MMC")},
             {"", "mmcblk0", 0, "Statistics", stats(4096, 0, 1, 0)},
             {"", "sdt", 0, "Protocol Characteristics", on("Thunderbolt")},
             {"", "sdt", 2, "ThunderboltGeneration", "n:3"},
         })
        expectProperty(tree.root(), c);
}

TEST(SysfsRegistry, KeysListReadableAttributeFilesThenAddedKeys) {
    SysfsRegistry registry(sysfsFixture("nvme-laptop"));
    const RegistryRef function = serviceAt(registry, "nvme0n1", 3);
    const std::vector<std::string> expected = {
        "class", "current_link_speed", "current_link_width", "device", "enable", "max_link_speed", "max_link_width",
        "numa_node", "revision", "subsystem_device", "subsystem_vendor", "uevent", "vendor", "Physical Interconnect",
        "LinkDescription", "MaxLinkDescription", "vendor-id"};
    EXPECT_EQ((*registry.copyProperties(function.get()))->dictionary()->keys(), expected);
}

TEST(SysfsRegistry, UnreadableAndMalformedAttributesArePassedOver) {
    const std::string disk = kNvmeController + "/nvme0n1";
    const std::vector<std::tuple<std::string, std::function<void(const TreeCopy&)>, std::string>> cases = {
        {"stat is a directory",
         [&](auto& t) { fs::remove(t / (disk + "/stat")); fs::create_directory(t / (disk + "/stat")); }, "Statistics"},
        {"empty stat", [&](auto& t) { t.write(disk + "/stat", ""); }, "Statistics"},
        {"oversized stat", [&](auto& t) { t.write(disk + "/stat", std::string(2000, '1')); }, "Statistics"},
        {"write-only", [&](auto& t) { fs::permissions(t / (disk + "/size"), fs::perms::owner_write); }, "size"},
    };
    for (const auto& [label, change, key] : cases) {
        const TreeCopy tree("nvme-laptop");
        change(tree);
        SysfsRegistry registry(tree.root());
        const RegistryRef device(registry, match(registry, "nvme0n1"));
        const PropertyDictionary& properties = *(*registry.copyProperties(device.get()))->dictionary();
        EXPECT_FALSE(properties.find(key)) << label;
        const auto keys = properties.keys();
        EXPECT_EQ(std::find(keys.begin(), keys.end(), key), keys.end()) << label;
        EXPECT_EQ(describe(properties.find("dev")), "s:259:0") << label;
    }
}

TEST(SysfsRegistry, StatisticsAreReadAfreshOnEveryLookup) {
    const TreeCopy tree("loop");
    SysfsRegistry registry(tree.root());
    const RegistryRef device(registry, match(registry, "loop0"));
    const auto copy = registry.copyProperties(device.get());
    EXPECT_EQ(describe((*copy)->dictionary()->find("Statistics")), stats(6153216, 0, 581, 0));
    tree.write("devices/virtual/block/loop0/stat", "  600  0  12100  64  10  0  80  3  0  212  64\n");
    EXPECT_EQ(describe((*copy)->dictionary()->find("Statistics")), stats(12100 * 512, 80 * 512, 600, 10));
}

TEST(SysfsRegistry, TheSameDirectoryHasTheSameHandleWhileItIsHeld) {
    SysfsRegistry registry(sysfsFixture("dmcrypt-nvme"));
    const RegistryRef p1(registry, match(registry, "nvme0n1p1"));
    const RegistryRef p3(registry, match(registry, "nvme0n1p3"));
    const RegistryRef disk(registry, match(registry, "nvme0n1"));
    EXPECT_EQ(RegistryRef(registry, match(registry, "nvme0n1p1")).get(), p1.get());
    EXPECT_EQ(serviceAt(registry, "nvme0n1p1", 1).get(), disk.get());
    EXPECT_EQ(serviceAt(registry, "nvme0n1p2", 1).get(), disk.get());
    EXPECT_EQ(serviceAt(registry, "dm-0", 1).get(), p3.get());
    EXPECT_NE(p1.get(), p3.get());
    EXPECT_NE(*registry.registryEntryId(p1.get()), *registry.registryEntryId(p3.get()));
    EXPECT_EQ(registry.liveObjectCount(), 3u);
}

TEST(SysfsRegistry, AHandleLivesUntilItsLastReference) {
    SysfsRegistry registry(sysfsFixture("nvme-laptop"));
    const RegistryObject disk = match(registry, "nvme0n1");
    registry.retain(disk);
    registry.release(disk);
    EXPECT_EQ(registry.className(disk), "block");
    const auto copy = registry.copyProperties(disk);
    registry.release(disk);
    EXPECT_EQ(registry.liveObjectCount(), 0u);
    EXPECT_EQ(registry.className(disk), std::nullopt);
    EXPECT_FALSE(registry.copyProperties(disk));
    EXPECT_FALSE(registry.parentEntry(disk, kServicePlane));
    // A dictionary already copied stays usable; a new match never reuses the dead handle.
    EXPECT_EQ(describe((*copy)->dictionary()->find("Statistics")), stats(5056790528u, 3919011840u, 152340, 98211));
    const RegistryRef again(registry, match(registry, "nvme0n1"));
    EXPECT_NE(again.get(), disk);
    registry.release(disk);
    EXPECT_EQ(registry.className(again.get()), "block");
}

TEST(SysfsRegistry, ADeviceThatDisappearsStopsAnswering) {
    const TreeCopy tree("usb-stick");
    SysfsRegistry registry(tree.root());
    const RegistryRef disk(registry, match(registry, "sdb"));
    const RegistryRef partition(registry, match(registry, "sdb1"));
    ASSERT_TRUE(property(registry, partition.get(), "Statistics"));
    const auto earlyCopy = registry.copyProperties(disk.get());

    fs::remove_all(tree / kUsbStickDisk);
    for (const RegistryObject gone : {disk.get(), partition.get()}) {
        const auto copy = registry.copyProperties(gone);
        EXPECT_EQ(copy ? kIOReturnSuccess : copy.error(), kIOReturnNoDevice);
        EXPECT_FALSE(registry.registryEntryId(gone));
    }
    EXPECT_FALSE((*earlyCopy)->dictionary()->find("Statistics"));
    EXPECT_EQ(match(registry, "sdb"), kNoRegistryObject);
}

// On sysfs a removed device's `stat` file keeps its link count, so only the failed read of the
// kept descriptor can tell; from then on the device must stop answering as it does on a tree of
// ordinary files. Needs root to add and remove a loop device.
TEST(SysfsRegistry, ARemovedDeviceOnSysfsStopsAnsweringOnceItsCountersFail) {
    const int control = ::geteuid() == 0 ? ::open("/dev/loop-control", O_RDWR | O_CLOEXEC) : -1;
    if (control < 0) GTEST_SKIP() << "needs root and /dev/loop-control";
    // Far above the indexes `losetup --find` hands out, so no other program binds it meanwhile.
    const int index = 4000 + static_cast<int>(::getpid() % 1000);
    if (::ioctl(control, LOOP_CTL_ADD, index) < 0) {
        ::close(control);
        GTEST_SKIP() << "cannot add loop" << index;
    }
    SysfsRegistry registry;
    const RegistryRef device(registry, match(registry, "loop" + std::to_string(index)));
    const bool answered = device && property(registry, device.get(), "Statistics").has_value();
    const bool removed = ::ioctl(control, LOOP_CTL_REMOVE, index) >= 0;
    ::close(control);
    ASSERT_TRUE(answered);
    ASSERT_TRUE(removed);

    EXPECT_FALSE(property(registry, device.get(), "Statistics"));
    const auto copy = registry.copyProperties(device.get());
    EXPECT_EQ(copy ? kIOReturnSuccess : copy.error(), kIOReturnNoDevice);
    EXPECT_FALSE(registry.registryEntryId(device.get()));
}

TEST(SysfsRegistry, ADeviceMadeAgainAtTheSamePlaceIsANewService) {
    const TreeCopy tree("usb-stick");
    SysfsRegistry registry(tree.root());
    const RegistryRef disk(registry, match(registry, "sdb"));
    // Moved aside, not deleted, so that the new directory cannot get its inode.
    fs::rename(tree / kUsbStickDisk, tree / "unplugged-sdb");
    fs::copy(sysfsFixture("usb-stick") / kUsbStickDisk, tree / kUsbStickDisk,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const RegistryRef replugged(registry, match(registry, "sdb"));
    EXPECT_NE(replugged.get(), disk.get());
    EXPECT_TRUE(registry.copyProperties(replugged.get()));
    EXPECT_FALSE(registry.copyProperties(disk.get()));
}

TEST(SysfsRegistry, ConcurrentCallersShareHandles) {
    SysfsRegistry registry(sysfsFixture("nvme-laptop"));
    const RegistryRef held(registry, match(registry, "nvme0n1"));
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                const RegistryRef disk = serviceAt(registry, i % 2 == 0 ? "nvme0n1p1" : "nvme0n1p2", 1);
                if (disk.get() != held.get() || !property(registry, disk.get(), "Statistics")) ++mismatches;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(registry.liveObjectCount(), 1u);
}

std::vector<std::uint64_t> statFields(const fs::path& file) {
    std::ifstream in(file);
    std::vector<std::uint64_t> fields;
    for (std::uint64_t value = 0; in >> value;) fields.push_back(value);
    return fields;
}

TEST(SysfsRegistry, StatisticsOnThisMachineMatchTheKernelsStatFile) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/sys/class/block", error))
        names.push_back(entry.path().filename());
    if (names.empty()) GTEST_SKIP() << "/sys/class/block is empty or unreadable";
    std::sort(names.begin(), names.end());
    // The first device that has been read from, so that the sector arithmetic shows.
    const auto read = std::find_if(names.begin(), names.end(), [](const std::string& name) {
        const auto fields = statFields(fs::path("/sys/class/block") / name / "stat");
        return fields.size() >= 7 && fields[2] > 0;
    });
    const std::string name = read != names.end() ? *read : names.front();
    const fs::path statFile = fs::path("/sys/class/block") / name / "stat";

    SysfsRegistry registry;
    const RegistryRef device(registry, match(registry, name));
    const auto before = statFields(statFile);
    const auto statistics = property(registry, device.get(), "Statistics");
    const auto after = statFields(statFile);
    ASSERT_TRUE(statistics && statistics->dictionary()) << name;
    ASSERT_GE(before.size(), 7u);
    // The counters only grow: the registry's reading lies between two readings of the file.
    const std::vector<std::pair<std::string, std::pair<std::size_t, std::uint64_t>>> fields = {
        {"Operations (Read)", {0, 1}}, {"Bytes (Read)", {2, 512}}, {"Operations (Write)", {4, 1}},
        {"Bytes (Write)", {6, 512}}};
    for (const auto& [key, field] : fields) {
        const std::uint64_t value = statistics->dictionary()->find(key)->number()->asUInt64();
        EXPECT_GE(value, before[field.first] * field.second) << key;
        EXPECT_LE(value, after[field.first] * field.second) << key;
    }
}

}  // namespace
}  // namespace vantorix
