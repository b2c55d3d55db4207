#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "helper/DeviceNameValidator.h"
#include "platform/SysfsTestSupport.h"

namespace vantorix::helper {
namespace {

namespace fs = std::filesystem;
using protocol::HelperFailure;

std::optional<HelperFailure> refusal(std::string_view name, const DeviceRoots& roots) {
    const auto result = validatedDevicePath(name, roots);
    if (result) return std::nullopt;
    EXPECT_EQ(result.error().domain, protocol::kHelperErrorDomain);
    return static_cast<HelperFailure>(result.error().code);
}

TEST(HelperDeviceNames, AcceptsOnlyBareKernelNamesOfDeviceNodesMatchingSysfs) {
    const testing::TreeCopy tree;  // empty at first: the syntax is judged before anything is looked up
    const DeviceRoots roots{(tree / "sys").string(), (tree / "dev").string()};
    fs::create_directories(roots.dev);
    for (const auto& name : std::vector<std::string>{"../sda", "sda/../../etc", "-a", "--scan", "sda;reboot", "sda\n",
                                                     "", std::string(65, 'a'), "sd\xC3\xA4", ".hidden", "sda b",
                                                     std::string("sda\0", 4), "/dev/sda", "$(reboot)"}) {
        EXPECT_EQ(refusal(name, roots), HelperFailure::invalidDeviceName) << sanitizedName(name);
    }
    // The description names the device with its odd bytes spelt out.
    EXPECT_EQ(validatedDevicePath("sda\n", roots).error().description,
              "\"sda\\x0A\" is not a device name: only letters, digits and \"_.:-\" may appear in it.");
    EXPECT_EQ(refusal("a_b.c:d-0", roots), HelperFailure::deviceNotFound);

    if (::geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes with mknod";
    struct Case {
        std::string name;
        std::string className;
        std::string sysfsDev;  // empty: not in sysfs
        mode_t type;           // 0: a regular file; S_IFLNK: a link to sda
        unsigned major, minor;
        std::optional<HelperFailure> refusal;
    };
    const auto notFound = HelperFailure::deviceNotFound;
    const std::vector<Case> cases = {
        {"sda", "block", "8:0\n", S_IFBLK, 8, 0, std::nullopt},
        {std::string(64, 'x'), "block", "8:80\n", S_IFBLK, 8, 80, std::nullopt},
        {"nvme0", "nvme", "240:0\n", S_IFCHR, 240, 0, std::nullopt},
        {"sdb", "block", "8:16\n", S_IFBLK, 8, 17, notFound},       // another device number
        {"sdc", "block", "8:32\n", 0, 0, 0, notFound},              // a regular file
        {"sdd", "block", "8:0\n", S_IFLNK, 0, 0, notFound},         // a symbolic link to sda
        {"sde", "block", "8:64\n", S_IFCHR, 8, 64, notFound},       // not a block device
        {"nvme1", "nvme", "240:1\n", S_IFBLK, 240, 1, notFound},    // not a character device
        {"sdf", "block", "eight:zero\n", S_IFBLK, 8, 0, notFound},  // unreadable device number
        {"onlydev", "block", "", S_IFBLK, 8, 112, notFound},        // in /dev only
    };
    for (const auto& c : cases) {
        const std::string node = roots.dev + "/" + c.name;
        if (!c.sysfsDev.empty()) tree.write("sys/class/" + c.className + "/" + c.name + "/dev", c.sysfsDev);
        if (c.type == 0) std::ofstream(node) << "";
        else if (c.type == S_IFLNK) fs::create_symlink(roots.dev + "/sda", node);
        else ASSERT_EQ(::mknod(node.c_str(), c.type | 0600, makedev(c.major, c.minor)), 0) << node;
    }
    tree.write("sys/class/block/sdg/dev", "8:96\n");  // in sysfs only
    EXPECT_EQ(refusal("sdg", roots), notFound);
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.name, roots), c.refusal) << c.name;
        if (!c.refusal) {
            EXPECT_EQ(*validatedDevicePath(c.name, roots), roots.dev + "/" + c.name);
        }
    }
}

}  // namespace
}  // namespace vantorix::helper
