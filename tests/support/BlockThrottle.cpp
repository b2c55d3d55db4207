#include "support/BlockThrottle.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/TemporaryFolder.h"

namespace vantorix::testing {
namespace {

namespace fs = std::filesystem;

const fs::path kVersion1 = "/sys/fs/cgroup/blkio";
const fs::path kUnified = "/sys/fs/cgroup";

bool hasVersion1() { return fs::exists(kVersion1 / "blkio.throttle.write_bps_device"); }
bool hasUnifiedIo() { return fileContents(kUnified / "cgroup.controllers").find("io") != std::string::npos; }

bool writeTo(const fs::path& file, const std::string& text) {
    std::ofstream out(file);
    out << text << std::flush;
    return static_cast<bool>(out);
}

}  // namespace

std::string BlockThrottle::unavailableReason() {
    if (::geteuid() != 0) return "needs root to make a control group";
    return hasVersion1() || hasUnifiedIo() ? "" : "neither cgroup v1's blkio nor cgroup v2's io controller is here";
}

std::unique_ptr<BlockThrottle> BlockThrottle::create(const std::string& deviceName, std::string* error) {
    static std::atomic<int> counter{0};
    auto throttle = std::make_unique<BlockThrottle>();
    throttle->unified_ = !hasVersion1();
    const std::string name = "vantorix-throttle-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
    throttle->device_ = fileContents("/sys/class/block/" + deviceName + "/dev");
    while (!throttle->device_.empty() && throttle->device_.back() == '\n') throttle->device_.pop_back();
    if (throttle->unified_ && !writeTo(kUnified / "cgroup.subtree_control", "+io")) {
        *error = "cannot enable the io controller for child groups";
        return nullptr;
    }
    const fs::path path = (throttle->unified_ ? kUnified : kVersion1) / name;
    std::error_code failed;
    if (throttle->device_.empty() || !fs::create_directory(path, failed)) {
        *error = "cannot make " + path.string() + " for " + deviceName;
        return nullptr;
    }
    throttle->path_ = path.string();
    return throttle;
}

BlockThrottle::~BlockThrottle() {
    // A group is removed once it holds no process.
    std::istringstream processes(fileContents(fs::path(path_) / "cgroup.procs"));
    const fs::path root = unified_ ? kUnified : kVersion1;
    for (std::string pid; std::getline(processes, pid);) writeTo(root / "cgroup.procs", pid);
    ::rmdir(path_.c_str());
}

bool BlockThrottle::limitWrites(std::uint64_t bytesPerSecond) {
    const std::string limit = std::to_string(bytesPerSecond);
    return unified_ ? writeTo(fs::path(path_) / "io.max", device_ + " wbps=" + limit)
                    : writeTo(fs::path(path_) / "blkio.throttle.write_bps_device", device_ + " " + limit);
}

std::vector<std::string> BlockThrottle::joined(const std::vector<std::string>& argv) const {
    std::vector<std::string> command{"/bin/sh", "-c", "echo $$ > \"$0\" && exec \"$@\"", path_ + "/cgroup.procs"};
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

std::uint64_t deviceBytesWritten(const std::string& deviceName) {
    std::istringstream fields(fileContents("/sys/class/block/" + deviceName + "/stat"));
    std::uint64_t value = 0;
    // The seventh field counts the 512-byte sectors written.
    for (int i = 0; i < 7; ++i) fields >> value;
    return value * 512;
}

}  // namespace vantorix::testing
