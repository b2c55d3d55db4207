#include "support/LoopVolume.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/Process.h"

namespace vantorix::testing {

std::string LoopVolume::unavailableReason() {
    if (::geteuid() != 0) return "needs root to attach and mount a loop device";
    struct stat st {};
    if (::stat("/dev/loop-control", &st) != 0) return "no /dev/loop-control: loop devices are not available";
    for (const char* tool : {"/sbin/mkfs.ext4", "/sbin/losetup", "/bin/mount"}) {
        if (::access(tool, X_OK) != 0 && ::access((std::string("/usr") + tool).c_str(), X_OK) != 0) {
            return std::string("missing ") + tool;
        }
    }
    return {};
}

std::unique_ptr<LoopVolume> LoopVolume::create(const std::string& label, std::uint64_t sizeBytes, std::string* error,
                                               const std::string& mountFolderName) {
    std::unique_ptr<LoopVolume> volume(new LoopVolume());
    char pattern[] = "/tmp/vantorix-loop-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        *error = "mkdtemp failed";
        return nullptr;
    }
    volume->directory_ = pattern;
    volume->image_ = volume->directory_ + "/image.ext4";
    volume->mountPoint_ = volume->directory_ + "/" + mountFolderName;
    std::filesystem::create_directory(volume->mountPoint_);

    std::ofstream(volume->image_, std::ios::binary).close();
    std::error_code sized;
    std::filesystem::resize_file(volume->image_, sizeBytes, sized);
    auto step = runProcess({"/sbin/mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", "-L", label,
                            volume->image_});
    if (sized || step.exitStatus != 0) {
        *error = "mkfs.ext4 failed: " + step.err;
        return nullptr;
    }
    step = runProcess({"/sbin/losetup", "--find", "--show", volume->image_});
    if (step.exitStatus != 0) {
        *error = "losetup failed: " + step.err;
        return nullptr;
    }
    volume->device_ = step.out.substr(0, step.out.find('\n'));
    volume->attached_ = true;
    step = runProcess({"/bin/mount", volume->device_, volume->mountPoint_});
    if (step.exitStatus != 0) {
        *error = "mount failed: " + step.err;
        return nullptr;
    }
    volume->mounted_ = true;
    return volume;
}

bool LoopVolume::unmount() {
    if (!mounted_) return true;
    if (runProcess({"/bin/umount", mountPoint_}).exitStatus != 0) return false;
    mounted_ = false;
    return true;
}

bool LoopVolume::detach() {
    if (!attached_) return true;
    if (runProcess({"/sbin/losetup", "-d", device_}).exitStatus != 0) return false;
    attached_ = false;
    return true;
}

bool LoopVolume::removeDevice() {
    if (!unmount() || !detach()) return false;
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (control < 0) return false;
    const int index = std::atoi(device_.c_str() + std::string("/dev/loop").size());
    // The kernel refuses while the detach is still settling; try for a moment.
    bool removed = false;
    for (int attempt = 0; attempt < 50 && !removed; ++attempt) {
        removed = ::ioctl(control, LOOP_CTL_REMOVE, index) >= 0;
        if (!removed) ::usleep(20000);
    }
    ::close(control);
    return removed;
}

LoopVolume::~LoopVolume() {
    if (mounted_ && !unmount()) runProcess({"/bin/umount", "-l", mountPoint_});
    if (attached_) detach();
    if (!directory_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
}

}  // namespace vantorix::testing
