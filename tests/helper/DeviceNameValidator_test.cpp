#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "helper/DeviceNameValidator.h"

namespace vantorix::helper {
namespace {

namespace fs = std::filesystem;
using protocol::HelperFailure;

// A temporary sysfs root and /dev root, removed at the end.
struct DeviceTree {
    DeviceTree() {
        char pattern[] = "/tmp/vantorix-devices-XXXXXX";
        root = ::mkdtemp(pattern);
        roots = {root + "/sys", root + "/dev"};
        fs::create_directories(roots.dev);
    }
    ~DeviceTree() { fs::remove_all(root); }
    void sysfsNode(const std::string& className, const std::string& name, const std::string& dev) const {
        const std::string folder = roots.sysfs + "/class/" + className + "/" + name;
        fs::create_directories(folder);
        std::ofstream(folder + "/dev") << dev;
    }
    bool deviceNode(const std::string& name, mode_t type, unsigned major, unsigned minor) const {
        return ::mknod((roots.dev + "/" + name).c_str(), type | 0600, makedev(major, minor)) == 0;
    }
    std::string root;
    DeviceRoots roots;
};

std::optional<HelperFailure> refusal(std::string_view name, const DeviceRoots& roots) {
    const auto result = validatedDevicePath(name, roots);
    if (result) return std::nullopt;
    EXPECT_EQ(result.error().domain, protocol::kHelperErrorDomain);
    return static_cast<HelperFailure>(result.error().code);
}

TEST(HelperDeviceNames, RefusesWhatIsNotABareKernelName) {
    const DeviceTree tree;  // empty: the syntax is judged before anything is looked up
    for (const auto& name : std::vector<std::string>{"../sda", "sda/../../etc", "-a", "--scan", "sda;reboot", "sda\n", "",
                                                     std::string(65, 'a'), "sd\xC3\xA4", ".hidden", "sda b",
                                                     std::string("sda\0", 4), "/dev/sda", "$(reboot)"}) {
        EXPECT_EQ(refusal(name, tree.roots), HelperFailure::invalidDeviceName) << sanitizedName(name);
    }
    // The description names the device with its odd bytes spelt out.
    EXPECT_EQ(validatedDevicePath("sda\n", tree.roots).error().description,
              "\"sda\\x0A\" is not a device name: only letters, digits and \"_.:-\" may appear in it.");
    // Well-formed names are looked up (and not found here).
    for (const auto& name : std::vector<std::string>{"sda", "nvme0n1", "dm-0", "md127", "a_b.c:d", std::string(64, 'x')}) {
        EXPECT_EQ(refusal(name, tree.roots), HelperFailure::deviceNotFound) << name;
    }
}

TEST(HelperDeviceNames, AcceptsOnlyDeviceNodesMatchingSysfs) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes with mknod";
    const DeviceTree tree;
    const std::string longName(64, 'x');
    struct Case {
        std::string name;
        std::string className;
        std::string sysfsDev;               // empty: not in sysfs
        mode_t type;                        // 0: a regular file; S_IFLNK: a link to sda
        unsigned major, minor;
        std::optional<HelperFailure> refusal;
    };
    const auto notFound = HelperFailure::deviceNotFound;
    const std::vector<Case> cases = {
        {"sda", "block", "8:0\n", S_IFBLK, 8, 0, std::nullopt},
        {longName, "block", "8:80\n", S_IFBLK, 8, 80, std::nullopt},
        {"nvme0", "nvme", "240:0\n", S_IFCHR, 240, 0, std::nullopt},
        {"sdb", "block", "8:16\n", S_IFBLK, 8, 17, notFound},        // another device number
        {"sdc", "block", "8:32\n", 0, 0, 0, notFound},               // a regular file
        {"sdd", "block", "8:0\n", S_IFLNK, 0, 0, notFound},          // a symbolic link to sda
        {"sde", "block", "8:64\n", S_IFCHR, 8, 64, notFound},        // not a block device
        {"nvme1", "nvme", "240:1\n", S_IFBLK, 240, 1, notFound},     // not a character device
        {"sdf", "block", "eight:zero\n", S_IFBLK, 8, 0, notFound},   // unreadable device number
        {"onlydev", "block", "", S_IFBLK, 8, 112, notFound},         // in /dev only
    };
    for (const auto& c : cases) {
        if (!c.sysfsDev.empty()) tree.sysfsNode(c.className, c.name, c.sysfsDev);
        if (c.type == 0) std::ofstream(tree.roots.dev + "/" + c.name) << "";
        else if (c.type == S_IFLNK) fs::create_symlink(tree.roots.dev + "/sda", tree.roots.dev + "/" + c.name);
        else ASSERT_TRUE(tree.deviceNode(c.name, c.type, c.major, c.minor));
    }
    ASSERT_TRUE(fs::exists(tree.roots.sysfs + "/class/block/sda"));
    tree.sysfsNode("block", "sdg", "8:96\n");  // in sysfs only
    EXPECT_EQ(refusal("sdg", tree.roots), notFound);
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.name, tree.roots), c.refusal) << c.name;
        if (!c.refusal) {
            EXPECT_EQ(*validatedDevicePath(c.name, tree.roots), tree.roots.dev + "/" + c.name);
        }
    }
    EXPECT_EQ(validatedDevicePath("sdb", tree.roots).error().description,
              "There is no device \"sdb\": " + tree.roots.dev + "/sdb is device 8:17, not 8:16.");
}

}  // namespace
}  // namespace vantorix::helper
