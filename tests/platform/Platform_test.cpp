#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <vector>

#include "SysfsTestSupport.h"
#include "platform/BlockStatistics.h"
#include "platform/linux/HelperServices.h"
#include "platform/linux/IoUringQueuedFile.h"
#include "platform/linux/MountInfo.h"
#include "platform/linux/SysfsAttributes.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "platform/linux/XdgFolders.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::sysfsFixture;
using testing::TreeCopy;

const std::string kNvmeFunction = "devices/pci0000:00/0000:00:1d.0/0000:3d:00.0";
const std::string kNvmeController = kNvmeFunction + "/nvme/nvme0";
const std::string kUsbStick = "devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1.3";
const std::string kSataLink = "devices/pci0000:00/0000:00:17.0/ata1/link1/ata_link/link1";

TEST(SysfsBlockDevices, NamesNumbersAndWhatADeviceStandsOn) {
    struct Case {
        std::string machine, name;
        unsigned major, minor;
        std::optional<std::string> wholeDisk;
        std::vector<std::string> members;
        std::optional<std::string> controller, serial, wwn;
    };
    const std::string eui = "eui.0025385b91b1c2d3";
    const std::vector<Case> cases = {
        {"nvme-laptop", "nvme0n1", 259, 0, std::nullopt, {}, "nvme0", "S4EWNX0R123456A", eui},
        {"nvme-laptop", "nvme0n1p2", 259, 2, "nvme0n1", {}, std::nullopt, "S4EWNX0R123456A", eui},
        {"dmcrypt-nvme", "dm-0", 254, 0, std::nullopt, {"nvme0n1p3"}, std::nullopt, "S4EWNX0R123456A", eui},
        {"sata-disk", "sda1", 8, 1, "sda", {}, std::nullopt, std::nullopt, std::nullopt},
        {"usb-stick", "sdb", 8, 16, std::nullopt, {}, std::nullopt, "4C530001230518115294", std::nullopt},
        {"loop", "loop0", 7, 0, std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.machine + " " + c.name);
        SysfsBlockDevices devices(sysfsFixture(c.machine));
        const auto device = devices.device(c.name);
        ASSERT_TRUE(device.ok()) << device.error().detail();
        EXPECT_EQ(device->name, c.name);
        EXPECT_EQ(std::pair(device->major, device->minor), std::pair(c.major, c.minor));
        EXPECT_EQ(device->wholeDisk, c.wholeDisk);
        EXPECT_EQ(device->members, c.members);
        EXPECT_EQ(device->nvmeController, c.controller);
        EXPECT_EQ(device->attachment.serial, c.serial);
        EXPECT_EQ(device->attachment.wwn, c.wwn);
    }
    SysfsBlockDevices devices(sysfsFixture("nvme-laptop"));
    for (const char* name : {"", ".", "..", "nvme0", "nvme0n1/..", "../nvme-laptop", "nosuchdevice"}) {
        const auto device = devices.device(name);
        ASSERT_FALSE(device.ok()) << name;
        EXPECT_EQ(device.error().kind, BlockDeviceError::Kind::notFound) << name;
        EXPECT_FALSE(devices.openStatistics(name).ok()) << name;
    }
}

// Each case changes one fact of a copied tree and says what the attachment reads then.
TEST(SysfsBlockDevices, AttachmentFollowsTheDevicesAbove) {
    struct Case {
        std::string label, machine, name;
        std::function<void(const TreeCopy&)> change;
        BusKind bus;
        std::optional<LinkState> link;
        std::string transport;
    };
    const LinkState pcieX4{"8.0 GT/s PCIe", 4};
    const std::vector<Case> cases = {
        {"NVMe over TCP", "nvme-laptop", "nvme0n1", [](auto& t) { t.write(kNvmeController + "/transport", "tcp\n"); },
         BusKind::nvmeFabrics, std::nullopt, "tcp"},
        {"link speed known only to the port above", "nvme-laptop", "nvme0n1",
         [](auto& t) { t.write(kNvmeFunction + "/current_link_speed", "Unknown\n"); }, BusKind::pciExpress, pcieX4, ""},
        {"no width", "nvme-laptop", "nvme0n1", [](auto& t) { fs::remove(t / (kNvmeFunction + "/current_link_width")); },
         BusKind::pciExpress, LinkState{"8.0 GT/s PCIe", std::nullopt}, ""},
        {"conventional PCI", "sata-disk", "sda",
         [](auto& t) { fs::remove_all(t / "devices/pci0000:00/0000:00:17.0/ata1/ata_port"); }, BusKind::pci,
         std::nullopt, ""},
        {"USB 1.0, a partition", "usb-stick", "sdb1", [](auto& t) { t.write(kUsbStick + "/speed", "1.5\n"); },
         BusKind::usb, LinkState{"1.5", std::nullopt}, ""},
        {"SATA link down", "sata-disk", "sda", [](auto& t) { t.write(kSataLink + "/sata_spd", "<unknown>\n"); },
         BusKind::sata, std::nullopt, ""},
        {"dm without members", "dmcrypt-nvme", "dm-0",
         [](auto& t) { fs::remove(t / "devices/virtual/block/dm-0/slaves/nvme0n1p3"); }, BusKind::virtualDevice,
         std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const TreeCopy tree(c.machine);
        c.change(tree);
        const auto device = SysfsBlockDevices(tree.root()).device(c.name);
        ASSERT_TRUE(device.ok()) << device.error().detail();
        EXPECT_EQ(device->attachment.bus, c.bus);
        EXPECT_EQ(device->attachment.link, c.link);
        EXPECT_EQ(device->attachment.nvmeTransport, c.transport);
    }
}

TEST(SysfsBlockDevices, ThunderboltAndMemoryCards) {
    const TreeCopy tree;
    const std::string tb = "devices/pci0000:00/0000:00:0d.2/domain0/0-0/0-1";
    const std::string card = "devices/platform/fe320000.mmc/mmc_host/mmc0/mmc0:0001";
    tree.link(tb + "/subsystem", "bus/thunderbolt");
    tree.write(tb + "/generation", "3\n");
    tree.link(card + "/subsystem", "bus/mmc");
    tree.write(card + "/name", "SC64G\n");
    for (const auto& [name, dir] : {std::pair{"sdt", tb}, std::pair{"mmcblk0", card}}) {
        tree.link(dir + "/block/" + name + "/subsystem", "class/block");
        tree.link(std::string("class/block/") + name, dir + "/block/" + name);
    }
    SysfsBlockDevices devices(tree.root());
    const auto thunderbolt = devices.device("sdt"), memoryCard = devices.device("mmcblk0");
    ASSERT_TRUE(thunderbolt.ok() && memoryCard.ok());
    EXPECT_EQ(thunderbolt->attachment.bus, BusKind::thunderbolt);
    EXPECT_EQ(thunderbolt->attachment.thunderboltGeneration, 3u);
    EXPECT_EQ(memoryCard->attachment.bus, BusKind::mmc);
    EXPECT_EQ(memoryCard->attachment.model, "SC64G");
}

// A missing statistics file is not found at opening; an empty or oversized one is malformed at reading.
TEST(SysfsBlockDevices, StatisticsFilesThatCannotBeReadAreNamedInTheError) {
    const std::string stat = kNvmeController + "/nvme0n1/stat";
    for (const std::string& content : {std::string("<missing>"), std::string(), std::string(2000, '1')}) {
        const TreeCopy tree("nvme-laptop");
        const bool missing = content == "<missing>";
        if (missing) fs::remove(tree / stat);
        else tree.write(stat, content);
        auto file = SysfsBlockDevices(tree.root()).openStatistics("nvme0n1");
        ASSERT_EQ(file.ok(), !missing);
        const BlockDeviceError error = missing ? file.error() : file.value()->read().error();
        EXPECT_EQ(error.kind, missing ? BlockDeviceError::Kind::notFound : BlockDeviceError::Kind::malformed);
        EXPECT_NE(error.detail().find("/class/block/nvme0n1/stat"), std::string::npos) << error.detail();
    }
}

TEST(SysfsNumbers, DecimalHexadecimalHexLiteralsAndTheStatisticsFields) {
    struct Case {
        std::string text;
        std::optional<std::uint64_t> decimal, hex, literal;
    };
    const std::vector<Case> cases = {
        {"1953525168", 1953525168, 0x1953525168, std::nullopt},
        {"18446744073709551615", 18446744073709551615u, std::nullopt, std::nullopt},
        {"18446744073709551616", std::nullopt, std::nullopt, std::nullopt},
        {" 42", std::nullopt, std::nullopt, std::nullopt},
        {"0781", 781, 0x0781, std::nullopt},
        {"0x144d", std::nullopt, std::nullopt, 0x144d},
        {"0x10000000000000000", std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sysfs::parseDecimal(c.text), c.decimal) << "'" << c.text << "'";
        EXPECT_EQ(sysfs::parseHex(c.text), c.hex) << "'" << c.text << "'";
        EXPECT_EQ(sysfs::parseHexLiteral(c.text), c.literal) << "'" << c.text << "'";
    }
    const auto stat = [](std::initializer_list<std::uint64_t> fields) {
        BlockStatistics s;
        std::uint64_t* target[] = {&s.readsCompleted,   &s.readsMerged,          &s.sectorsRead,
                                   &s.readMilliseconds, &s.writesCompleted,      &s.writesMerged,
                                   &s.sectorsWritten,   &s.writeMilliseconds,    &s.inFlight,
                                   &s.busyMilliseconds, &s.weightedMilliseconds, &s.discardsCompleted,
                                   &s.discardsMerged,   &s.sectorsDiscarded,     &s.discardMilliseconds,
                                   &s.flushesCompleted, &s.flushMilliseconds};
        std::size_t i = 0;
        for (const auto value : fields) *target[i++] = value;
        return s;
    };
    const std::vector<std::pair<std::string, std::optional<BlockStatistics>>> stats = {
        {"\t1\t2\t3\t4\t5\t6\t7\t8\t9\t10\t11\n", stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15", stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19",
         stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17})},
        {"18446744073709551615 0 18446744073709551615 0 1 0 2 0 0 0 0",
         stat({18446744073709551615u, 0, 18446744073709551615u, 0, 1, 0, 2, 0, 0, 0, 0})},
        {"1 2 3 4 5 6 7", std::nullopt},
        {"1 2 3 x 5 6 7 8 9 10 11", std::nullopt},
        {"1 2 18446744073709551616 4 5 6 7 8 9 10 11", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [text, expected] : stats) EXPECT_EQ(parseBlockStatistics(text), expected) << "'" << text << "'";
    // Sectors are 512 bytes, and a byte count wraps as the sector count does.
    EXPECT_EQ(stat({0, 0, 3}).bytesRead(), 1536u);
    EXPECT_EQ(stat({0, 0, 0, 0, 0, 0, 18446744073709551615u}).bytesWritten(), 18446744073709551104u);
}

TEST(SysfsAttributeFile, ReadsTextAndPassesOverWhatIsNotAReadableTextAttribute) {
    const testing::TreeCopy dir;
    struct Case {
        std::string name, content;
        std::optional<std::string> text;  // nothing: passed over
    };
    const std::vector<Case> cases = {
        {"plain", "Samsung SSD 860 \n", "Samsung SSD 860 "},
        {"lines", "MAJOR=8\nMINOR=0\n\n", "MAJOR=8\nMINOR=0"},
        {"empty", "", ""},
        {"page", std::string(sysfs::kMaxAttributeSize, 'a'), std::string(sysfs::kMaxAttributeSize, 'a')},
        {"too-long", std::string(sysfs::kMaxAttributeSize + 1, 'a'), std::nullopt},
        {"binary", std::string("\x01\x00\x02\n", 4), std::nullopt},
        {"latin1", "Caf\xe9\n", std::nullopt},
        {"utf8", "\xe9\x9b\xb7\xe9\x9b\xb3\n", "\xe9\x9b\xb7\xe9\x9b\xb3"},
    };
    for (const auto& c : cases) dir.write(c.name, c.content);
    fs::create_symlink("plain", dir / "a-link");
    for (const auto& c : cases) EXPECT_EQ(sysfs::readAttribute(dir.root(), c.name), c.text) << c.name;
    for (const char* rejected : {"a-link", "missing", "..", "../plain"})
        EXPECT_EQ(sysfs::readAttribute(dir.root(), rejected), std::nullopt) << rejected;
}

constexpr const char* kMountInfo =
    "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
    "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard\n"
    "28 27 7:3 / /mnt/my\\040disk rw,relatime shared:5 master:2 - ext4 /dev/loop3 rw\n"
    "29 28 7:4 / /mnt/my\\040disk/inner rw - xfs /dev/loop4 rw\n"
    "30 27 0:44 / /tmp rw - tmpfs tmpfs rw\n"
    "31 27 0:45 / /tmp rw - tmpfs tmpfs2 rw\n"
    "32 27 0:46 / /var/lib/docker/overlay2/x/merged rw - overlay overlay rw,lowerdir=a\n"
    "garbage line\n"
    "33 27 notanumber / /bad rw - ext4 /dev/sdz rw\n"
    "34 27 8:1 / /nofields rw\n";

TEST(MountInfo, FindsTheMountHoldingAPathAndEachBlockDevicesRootMount) {
    const auto entries = parseMountInfo(kMountInfo);
    EXPECT_EQ(entries.size(), 7u) << "lines without all their fields are passed over";
    EXPECT_EQ(entries[2].fileSystemType, "ext4");  // after two optional fields
    struct Case {
        std::uint32_t major, minor;
        const char *path, *mountPoint, *source;
    };
    const std::vector<Case> cases{
        {254, 0, "/home/user/file", "/", "/dev/vda"},
        {7, 3, "/mnt/my disk/sub/dir", "/mnt/my disk", "/dev/loop3"},  // after two optional fields
        {7, 4, "/mnt/my disk/inner/x", "/mnt/my disk/inner", "/dev/loop4"},
        {254, 0, "/mnt/my diskette", "/", "/dev/vda"},                       // a name prefix is not a parent
        {0, 45, "/tmp/a", "/tmp", "tmpfs2"},                                 // the topmost of two mounts on one point
        {9, 9, "/mnt/my disk/inner/y", "/mnt/my disk/inner", "/dev/loop4"},  // unknown device: longest mount
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const auto mount = findMount(entries, c.major, c.minor, c.path);
        ASSERT_TRUE(mount);
        EXPECT_EQ(mount->mountPoint, c.mountPoint);
        EXPECT_EQ(mount->source, c.source);
    }
    EXPECT_FALSE(findMount(parseMountInfo(""), 254, 0, "/x"));

    // A bind mount of a folder of vda listed first gives way to vda's root mount; tmpfs, proc and
    // overlay have no block device.
    const std::string text = "40 27 254:0 /srv/etc /etc/hosts rw - ext4 /dev/vda rw\n" + std::string(kMountInfo) +
                             "41 27 7:3 / /again rw - ext4 /dev/loop3 rw\n";
    EXPECT_EQ(blockDeviceMountPoints(parseMountInfo(text)),
              (std::vector<std::string>{"/", "/mnt/my disk", "/mnt/my disk/inner"}));
}

TEST(MountInfo, DecodesUdevLabelEscapes) {
    const std::pair<std::string, std::string> cases[] = {
        {"My\\x20Disk", "My Disk"}, {"a\\x2fb", "a/b"}, {"\\xzz", "\\xzz"}, {"end\\x2", "end\\x2"}, {"数据", "数据"},
    };
    for (const auto& [label, decoded] : cases) EXPECT_EQ(decodeUdevLabel(label), decoded) << label;
}

TEST(SystemdHelperService, MapsUnitStatesAndEnablesThroughSystemctlOrPkexec) {
    const testing::ScopedEnvironment desktop{{"DISPLAY", ":0"}};  // someone pkexec can ask
    // Stand-ins for systemctl and pkexec: they log the commands that change something, and
    // `systemctl show` answers from a file of properties.
    const testing::TreeCopy dir;
    const std::string d = dir.root().string();
    dir.write("systemctl", "#!/bin/sh\nif [ \"$1\" = show ]; then sed -n \"s/^${2#--property=}=//p\" " + d +
                               "/properties; exit 0; fi\necho \"systemctl $*\" >> " + d + "/log\n");
    dir.write("pkexec", "#!/bin/sh\necho \"pkexec $*\" >> " + d + "/log\nexit $(cat " + d + "/pkexec-status)\n");
    for (const char* program : {"systemctl", "pkexec"}) fs::permissions(dir / program, fs::perms::owner_all);
    const SystemdPrograms programs{d + "/systemctl", d + "/pkexec"};
    const auto changes = [&dir] {
        std::ifstream in(dir / "log");
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    };
    // What systemctl show says of the socket unit.
    const std::string loaded =
        "LoadState=loaded\nFragmentPath=/usr/lib/systemd/system/vantorix-smartctl-helper.socket\n";
    const std::string disabled = loaded + "UnitFileState=disabled\n", masked = loaded + "UnitFileState=masked\n";
    const std::string enabled = loaded + "UnitFileState=enabled\nActiveState=active\n";  // enabled only when active
    using State = HelperServiceState;
    using F = HelperServiceFailure;
    struct Case {
        std::string name, properties;
        uid_t uid;
        bool mayRegister;
        int pkexecStatus;
        State state;
        std::optional<F> enableFailure;  // nothing: enabled
        std::vector<std::string> commands;
    };
    const std::string direct = "systemctl enable --now vantorix-smartctl-helper.socket",
                      pkexec = "pkexec " + d + "/" + direct;
    const std::vector<Case> cases = {
        {"missing unit", "LoadState=not-found\n", 0, true, 0, State::unitNotInstalled, {}, {direct}},
        {"root enables directly", disabled, 0, true, 0, State::notEnabled, {}, {direct}},
        {"enabled; read-only: no change", enabled, 0, false, 0, State::enabled, F::needsAdministrator, {}},
        {"a user enables through pkexec", disabled, 1000, true, 0, State::notEnabled, {}, {pkexec}},
        {"password dialogue dismissed", disabled, 1000, true, 126, State::notEnabled, F::needsAdministrator, {pkexec}},
        {"pkexec runs systemctl, which fails", masked, 1000, true, 1, State::notEnabled, F::commandFailed, {pkexec}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        dir.write("properties", c.properties);
        dir.write("pkexec-status", std::to_string(c.pkexecStatus));
        fs::remove(dir / "log");
        SystemdHelperService service(RegistrationPolicy{c.mayRegister}, programs, c.uid);
        EXPECT_EQ(service.definitionPath().has_value(), c.state != State::unitNotInstalled);
        EXPECT_EQ(service.state(), c.state);
        const auto enabling = service.enable();
        EXPECT_EQ(enabling.ok() ? std::nullopt : std::optional(enabling.error().failure), c.enableFailure);
        EXPECT_EQ(changes(), c.commands);
    }
}

TEST(XdgFolders, DownloadsFollowTheUserDirectoriesThenHomeThenTheTemporaryFolder) {
    testing::TemporaryFolder home, elsewhere;
    testing::ScopedEnvironment environment{{"HOME", home.string()},
                                           {"XDG_CONFIG_HOME", std::nullopt},
                                           {"XDG_DOWNLOAD_DIR", std::nullopt},
                                           {"TMPDIR", elsewhere.string()}};
    fs::create_directories(home.path() / ".config");
    const auto userDirs = home.path() / ".config" / "user-dirs.dirs";
    const std::string fetched = (home.path() / "Fetched").string();

    EXPECT_EQ(xdg::downloadsFolder(), elsewhere.string()) << "no Downloads folder: the temporary folder";
    fs::create_directory(home.path() / "Downloads");
    EXPECT_EQ(xdg::downloadsFolder(), (home.path() / "Downloads").string());
    testing::writeFile(userDirs, "# written by xdg-user-dirs-update\nXDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    EXPECT_EQ(xdg::userDirectory("DOWNLOAD"), fetched);
    EXPECT_EQ(xdg::downloadsFolder(), (home.path() / "Downloads").string()) << "the named folder does not exist";
    fs::create_directory(fetched);
    EXPECT_EQ(xdg::downloadsFolder(), fetched);

    // The last assignment wins; escapes are undone; a home that is not "$HOME/…" names nothing.
    const std::pair<std::string, std::optional<std::string>> files[] = {
        {"XDG_DOWNLOAD_DIR=\"$HOME/a\"\n  XDG_DOWNLOAD_DIR = \"" + elsewhere.string() + "\"\n", elsewhere.string()},
        {"XDG_DOWNLOAD_DIR=\"$HOME/with \\\"quote\\\"\"\n", home.string() + "/with \"quote\""},
        {"XDG_DOWNLOAD_DIR=\"$HOMEX/a\"\n", std::nullopt},
        {"XDG_DOWNLOAD_DIR=\"$HOME/\"\n", std::nullopt},  // turned off
    };
    for (const auto& [contents, expected] : files) {
        testing::writeFile(userDirs, contents);
        EXPECT_EQ(xdg::userDirectory("DOWNLOAD"), expected) << contents;
    }
    EXPECT_EQ(xdg::downloadsFolder(), (home.path() / "Downloads").string()) << "a directory turned off";

    // The environment comes first, then the file in XDG_CONFIG_HOME.
    testing::TemporaryFolder config;
    environment.set("XDG_CONFIG_HOME", config.string());
    testing::writeFile(config.path() / "user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    EXPECT_EQ(xdg::downloadsFolder(), fetched);
    environment.set("XDG_DOWNLOAD_DIR", elsewhere.string());
    EXPECT_EQ(xdg::downloadsFolder(), elsewhere.string());
}

using Pattern = QueuedJob::Pattern;
using Direction = QueuedJob::Direction;

constexpr std::uint64_t kSpan = 4 << 20;
constexpr std::uint64_t kTail = 1 << 20;  // past the span: must never be written
constexpr char kSentinel = static_cast<char>(0xA5);

// A folder under /var/tmp, which sits on a disk file system that takes direct I/O (tmpfs /tmp
// would not test the real thing).
class QueuedFileTest : public ::testing::Test {
protected:
    // A file of `kSpan` zero bytes followed by `kTail` sentinel bytes, opened for queued I/O.
    std::unique_ptr<QueuedFile> makeFile() {
        path_ = folder_.string() + "/data";
        std::ofstream out(path_, std::ios::binary);
        out.seekp(static_cast<std::streamoff>(kSpan));
        const std::vector<char> tail(kTail, kSentinel);
        out.write(tail.data(), static_cast<std::streamsize>(tail.size()));
        out.close();
        auto file = openIoUringQueuedFile(path_);
        if (!file && file.error().code == EINVAL) return nullptr;
        EXPECT_TRUE(file.ok()) << file.error().message;
        return file ? std::move(file).value() : nullptr;
    }

    std::string contents() const { return testing::fileContents(path_); }

    // The file kept its size and its tail.
    void expectTailUntouched() const {
        const auto bytes = contents();
        ASSERT_EQ(bytes.size(), kSpan + kTail);
        EXPECT_TRUE(std::all_of(bytes.begin() + kSpan, bytes.end(), [](char b) { return b == kSentinel; }));
    }

    // How many `blockSize` blocks of the span hold something other than zeros.
    std::uint64_t writtenBlocks(std::uint64_t blockSize) const {
        const auto bytes = contents();
        std::uint64_t written = 0;
        for (std::uint64_t at = 0; at < kSpan; at += blockSize) {
            const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            const auto end = begin + static_cast<std::ptrdiff_t>(blockSize);
            written += std::any_of(begin, end, [](char b) { return b != 0; });
        }
        return written;
    }

    const testing::TemporaryFolder folder_{"/var/tmp"};
    std::string path_;
};

#define OPEN_OR_SKIP(file)  \
    auto file = makeFile(); \
    if (!file) GTEST_SKIP() << folder_.string() << " does not take direct I/O on this system"

// Each job on a fresh file: whole blocks counted, progress reported in order, writes kept to the
// span (reads cover the whole file, so one past its end would fail the job).
TEST_F(QueuedFileTest, JobsMoveWholeBlocksWithinTheirSpanUntilTheirTimeOrByteLimit) {
    constexpr std::uint64_t kBlocks = kSpan / 65536;
    struct Case {
        Pattern pattern;
        Direction direction;
        std::uint32_t block, depth;
        std::uint64_t limitBlocks;  // 0: 200 ms instead
    };
    const Case cases[] = {
        {Pattern::sequential, Direction::read, 65536, 1, 0},
        {Pattern::random, Direction::write, 4096, 32, 0},
        {Pattern::sequential, Direction::write, 65536, 1, 3},
        {Pattern::sequential, Direction::write, 65536, 8, 10},
        {Pattern::sequential, Direction::write, 65536, 32, kBlocks},
        {Pattern::sequential, Direction::write, 65536, 8, kBlocks + 2},  // wraps to 0
        {Pattern::random, Direction::write, 65536, 32, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << static_cast<int>(c.pattern) << static_cast<int>(c.direction) << " depth "
                                          << c.depth << ", " << c.limitBlocks << " blocks");
        OPEN_OR_SKIP(file);
        const bool timed = c.limitBlocks == 0;
        const auto span = c.direction == Direction::read ? kSpan + kTail : kSpan;
        const auto limit = timed ? std::nullopt : std::optional(c.limitBlocks * c.block);
        const QueuedJob job{c.pattern, c.direction, c.block, c.depth, span, timed ? 200ms : 0ns, limit};
        std::vector<std::uint64_t> reported;
        auto figures = file->run(job, {}, [&](std::uint64_t bytes) { reported.push_back(bytes); });
        ASSERT_TRUE(figures.ok()) << figures.error().message;
        EXPECT_EQ(figures->operations * job.blockSize, figures->bytes);
        EXPECT_GT(figures->seconds, 0);
        EXPECT_TRUE(std::is_sorted(reported.begin(), reported.end()));
        EXPECT_TRUE(reported.empty() || reported.back() <= figures->bytes);
        EXPECT_TRUE(!timed || (figures->bytes > 0 && !reported.empty()));
        ASSERT_TRUE(file->close().ok());
        expectTailUntouched();
        if (timed) continue;
        EXPECT_EQ(figures->bytes, *job.byteLimit);
        const std::uint64_t written = writtenBlocks(c.block);
        if (c.pattern == Pattern::sequential) {
            EXPECT_EQ(written, std::min(c.limitBlocks, kBlocks));
            EXPECT_EQ(writtenBlocks(4096), std::min(c.limitBlocks, kBlocks) * (c.block / 4096));  // random, not zeros
        } else {
            EXPECT_GE(written, 1u);
            EXPECT_LE(written, c.limitBlocks);
        }
    }
}

// The error code of a failed result; 0 for success.
template <class R>
int errorCode(const R& result) {
    return result.ok() ? 0 : result.error().code;
}

TEST_F(QueuedFileTest, AStopOrTheFileEndEndsAJobAndMalformedJobsAreRefused) {
    OPEN_OR_SKIP(file);
    QueuedJob job{Pattern::random, Direction::read, 4096, 8, kSpan, 1h, std::nullopt};
    int asked = 0;
    auto stopped = file->run(job, [&] { return ++asked == 5; }, {});
    ASSERT_TRUE(stopped.ok()) << stopped.error().message;
    EXPECT_EQ(asked, 5);
    EXPECT_GT(stopped->operations, 0u);
    EXPECT_EQ(stopped->operations * 4096, stopped->bytes);

    // The file shrinks under a running job to less than a block: reads come back short, then meet
    // its end.
    job = {Pattern::sequential, Direction::read, 65536, 8, kSpan, 1h, std::nullopt};
    EXPECT_EQ(errorCode(file->run(job, [&] { return !file->truncate(3 * 4096).ok(); }, {})), ENODATA);
    // Nothing was left in flight: the file takes the next job.
    job.direction = Direction::write;
    job.byteLimit = kSpan;
    auto rewritten = file->run(job, {}, {});
    ASSERT_TRUE(rewritten.ok()) << rewritten.error().message;
    EXPECT_EQ(rewritten->bytes, kSpan);

    const QueuedJob good{Pattern::sequential, Direction::read, 65536, 4, kSpan, 1h, std::nullopt};
    std::vector<QueuedJob> bad(9, good);
    bad[0].blockSize = 6144;
    bad[8].blockSize = 0;
    bad[1].queueDepth = 0;
    bad[2].queueDepth = 257;
    bad[3].span = 0;
    bad[4].span = kSpan + 4096;
    bad[5].span = kSpan + kTail + 65536;  // past the end of the file
    bad[6].byteLimit = 65536 + 4096;
    bad[7].duration = 0ns;  // and no byte limit: it would never end
    for (std::size_t i = 0; i < bad.size(); ++i) EXPECT_EQ(errorCode(file->run(bad[i], {}, {})), EINVAL) << i;
    ASSERT_TRUE(file->close().ok());
    EXPECT_EQ(errorCode(file->run(good, {}, {})), EBADF);
    EXPECT_EQ(errorCode(openIoUringQueuedFile(folder_.string() + "/missing")), ENOENT);
}

}  // namespace
}  // namespace vantorix
