#include "support/LoopVolume.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/Process.h"

namespace vantorix::testing {

std::string LoopVolume::unavailableReason() {
    if (::geteuid() != 0) return "needs root to attach and mount a loop device";
    if (::access("/dev/loop-control", F_OK) != 0) return "no /dev/loop-control: loop devices are not available";
    for (const std::string tool : {"/sbin/mkfs.ext4", "/sbin/losetup", "/bin/mount"}) {
        if (::access(tool.c_str(), X_OK) != 0 && ::access(("/usr" + tool).c_str(), X_OK) != 0) return "missing " + tool;
    }
    return {};
}

std::unique_ptr<LoopVolume> LoopVolume::create(const std::string& label, std::uint64_t sizeBytes, std::string* error,
                                               const std::string& mountFolderName) {
    std::unique_ptr<LoopVolume> volume(new LoopVolume());
    const std::string image = volume->backingFile();
    volume->mountPoint_ = volume->folder_.string() + "/" + mountFolderName;
    std::filesystem::create_directory(volume->mountPoint_);
    std::ofstream(image, std::ios::binary).close();
    std::error_code sized;
    std::filesystem::resize_file(image, sizeBytes, sized);
    const auto step = [&](const std::vector<std::string>& argv) {
        auto result = runProcess(argv);
        if (result.exitStatus != 0) *error = argv[0] + " failed: " + result.err;
        return result;
    };
    const std::string lazyInit = "lazy_itable_init=0,lazy_journal_init=0";
    if (sized || step({"/sbin/mkfs.ext4", "-q", "-F", "-E", lazyInit, "-L", label, image}).exitStatus != 0) {
        return nullptr;
    }
    const auto attached = step({"/sbin/losetup", "--find", "--show", image});
    if (attached.exitStatus != 0) return nullptr;
    volume->device_ = attached.out.substr(0, attached.out.find('\n'));
    volume->attached_ = true;
    volume->mounted_ = step({"/bin/mount", volume->device_, volume->mountPoint_}).exitStatus == 0;
    return volume->mounted_ ? std::move(volume) : nullptr;
}

bool LoopVolume::unmount() {
    mounted_ = mounted_ && runProcess({"/bin/umount", mountPoint_}).exitStatus != 0;
    return !mounted_;
}

bool LoopVolume::detach() {
    attached_ = attached_ && runProcess({"/sbin/losetup", "-d", device_}).exitStatus != 0;
    return !attached_;
}

bool LoopVolume::removeDevice() {
    if (!unmount() || !detach()) return false;
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int index = std::atoi(device_.c_str() + std::string("/dev/loop").size());
    // The kernel refuses while the detach is still settling; try for a moment.
    const auto remove = [&] { return ::ioctl(control, LOOP_CTL_REMOVE, index) >= 0; };
    const bool removed = control >= 0 && eventually(remove, std::chrono::seconds(1));
    ::close(control);
    return removed;
}

// The folder goes after the file system is unmounted and its device detached.
LoopVolume::~LoopVolume() {
    if (!unmount()) runProcess({"/bin/umount", "-l", mountPoint_});
    detach();
}

}  // namespace vantorix::testing
