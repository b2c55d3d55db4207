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
class DeviceTree {
public:
    DeviceTree() {
        char pattern[] = "/tmp/vantorix-devices-XXXXXX";
        root_ = ::mkdtemp(pattern);
        roots.sysfs = root_ + "/sys";
        roots.dev = root_ + "/dev";
        fs::create_directories(roots.sysfs + "/class/block");
        fs::create_directories(roots.sysfs + "/class/nvme");
        fs::create_directories(roots.dev);
    }
    ~DeviceTree() { fs::remove_all(root_); }

    void sysfsNode(const std::string& className, const std::string& name, const std::string& dev) const {
        fs::create_directories(roots.sysfs + "/class/" + className + "/" + name);
        std::ofstream(roots.sysfs + "/class/" + className + "/" + name + "/dev") << dev;
    }
    bool deviceNode(const std::string& name, mode_t type, unsigned major, unsigned minor) const {
        return ::mknod((roots.dev + "/" + name).c_str(), type | 0600, makedev(major, minor)) == 0;
    }

    DeviceRoots roots;

private:
    std::string root_;
};

std::optional<HelperFailure> refusal(std::string_view name, const DeviceRoots& roots) {
    const auto result = validatedDevicePath(name, roots);
    if (result) return std::nullopt;
    EXPECT_EQ(result.error().domain, protocol::kHelperErrorDomain);
    return static_cast<HelperFailure>(result.error().code);
}

TEST(HelperDeviceNames, RefusesWhatIsNotABareKernelName) {
    const DeviceTree tree;  // empty: the syntax is judged before anything is looked up
    const std::vector<std::string> names = {
        "../sda", "sda/../../etc", "-a", "--scan", "sda;reboot", "sda\n", "", std::string(65, 'a'),
        "sd\xC3\xA4", ".hidden", "sda b", std::string("sda\0", 4), "/dev/sda", "$(reboot)",
    };
    for (const auto& name : names) {
        EXPECT_EQ(refusal(name, tree.roots), HelperFailure::invalidDeviceName) << sanitizedName(name);
    }
    // The description names the device with its odd bytes spelt out.
    EXPECT_EQ(validatedDevicePath("sda\n", tree.roots).error().description,
              "\"sda\\x0A\" is not a device name: only letters, digits and \"_.:-\" may appear in it.");
    // Well-formed names are looked up (and not found here).
    for (const std::string& name : std::vector<std::string>{"sda", "nvme0n1", "dm-0", "md127", "mmcblk0", "sr0", "a_b.c:d",
                                                             std::string(64, 'x')}) {
        EXPECT_EQ(refusal(name, tree.roots), HelperFailure::deviceNotFound) << name;
    }
}

TEST(HelperDeviceNames, AcceptsOnlyDeviceNodesMatchingSysfs) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes with mknod";
    const DeviceTree tree;
    const std::string longName(64, 'x');
    tree.sysfsNode("block", "sda", "8:0\n");
    tree.sysfsNode("block", longName, "8:80\n");
    tree.sysfsNode("block", "sdb", "8:16\n");       // its node is 8:17
    tree.sysfsNode("block", "sdc", "8:32\n");       // its node is a regular file
    tree.sysfsNode("block", "sdd", "8:0\n");        // its node is a symbolic link to sda
    tree.sysfsNode("block", "sde", "8:64\n");       // its node is a character device
    tree.sysfsNode("block", "sdf", "eight:zero\n");
    tree.sysfsNode("block", "sdg", "8:96\n");       // no node at all
    tree.sysfsNode("nvme", "nvme0", "240:0\n");
    tree.sysfsNode("nvme", "nvme1", "240:1\n");     // its node is a block device
    ASSERT_TRUE(tree.deviceNode("sda", S_IFBLK, 8, 0));
    ASSERT_TRUE(tree.deviceNode(longName, S_IFBLK, 8, 80));
    ASSERT_TRUE(tree.deviceNode("sdb", S_IFBLK, 8, 17));
    std::ofstream(tree.roots.dev + "/sdc") << "";
    fs::create_symlink(tree.roots.dev + "/sda", tree.roots.dev + "/sdd");
    ASSERT_TRUE(tree.deviceNode("sde", S_IFCHR, 8, 64));
    ASSERT_TRUE(tree.deviceNode("sdf", S_IFBLK, 8, 0));
    ASSERT_TRUE(tree.deviceNode("nvme0", S_IFCHR, 240, 0));
    ASSERT_TRUE(tree.deviceNode("nvme1", S_IFBLK, 240, 1));
    ASSERT_TRUE(tree.deviceNode("onlydev", S_IFBLK, 8, 112));  // in /dev but not in sysfs

    struct Case {
        std::string name;
        std::optional<HelperFailure> refusal;
    };
    const std::vector<Case> cases = {
        {"sda", std::nullopt},
        {longName, std::nullopt},
        {"nvme0", std::nullopt},
        {"sdb", HelperFailure::deviceNotFound},
        {"sdc", HelperFailure::deviceNotFound},
        {"sdd", HelperFailure::deviceNotFound},
        {"sde", HelperFailure::deviceNotFound},
        {"sdf", HelperFailure::deviceNotFound},
        {"sdg", HelperFailure::deviceNotFound},
        {"nvme1", HelperFailure::deviceNotFound},
        {"onlydev", HelperFailure::deviceNotFound},
    };
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
