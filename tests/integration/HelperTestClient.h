#pragma once

// Small helpers shared by the tests that drive the real vantorix-smartctl-helper.

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "protocol/SmartctlHelperProtocol.h"
#include "support/HelperDaemon.h"
#include "support/SmartctlStandIn.h"

namespace vantorix::testing {

inline StandInBehaviour printing(const std::string& outputFile) {
    StandInBehaviour behaviour;
    behaviour.outputFile = outputFile;
    return behaviour;
}
inline StandInBehaviour acting(StandInBehaviour::Mode mode) {
    StandInBehaviour behaviour;
    behaviour.mode = mode;
    return behaviour;
}

inline std::string fetchFrame(const std::string& name) {
    return protocol::framed(protocol::encodedRequest(protocol::FetchRequest{name}));
}
inline std::string versionFrame() { return protocol::framed(protocol::encodedRequest(protocol::VersionRequest{})); }

// One client connection, closed with the object.
class HelperClient {
public:
    explicit HelperClient(const std::string& socketPath) : fd(connectTo(socketPath)) {}
    ~HelperClient() {
        if (fd >= 0) ::close(fd);
    }
    HelperClient(const HelperClient&) = delete;
    HelperClient& operator=(const HelperClient&) = delete;

    bool send(const std::string& bytes) const { return sendAll(fd, bytes); }
    // The next reply; nothing when none arrives (whole and well-formed) within the limit.
    std::optional<protocol::Reply> reply(std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
        const auto payload = readFrame(fd, limit);
        if (!payload) return std::nullopt;
        return protocol::parsedReply(*payload);
    }
    std::optional<protocol::Reply> ask(const std::string& frame) const {
        if (!send(frame)) return std::nullopt;
        return reply();
    }

    int fd;
};

// The helper's error code in a reply; nothing for any other reply (or none).
inline std::optional<protocol::HelperFailure> failure(const std::optional<protocol::Reply>& reply) {
    if (!reply) return std::nullopt;
    const auto* error = std::get_if<protocol::HelperError>(&*reply);
    if (error == nullptr || error->domain != protocol::kHelperErrorDomain) return std::nullopt;
    return static_cast<protocol::HelperFailure>(error->code);
}

inline const SmartctlExecutionResult* result(const std::optional<protocol::Reply>& reply) {
    return reply ? std::get_if<SmartctlExecutionResult>(&*reply) : nullptr;
}

// The children of a process (zombies included), from /proc.
inline std::vector<pid_t> childrenOf(pid_t pid) {
    std::vector<pid_t> children;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        std::ifstream in(task.path() / "children");
        for (pid_t child = 0; in >> child;) children.push_back(child);
    }
    return children;
}

// A field of /proc/PID/status in kB (VmHWM, VmRSS); 0 when missing.
inline std::uint64_t statusKilobytes(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::stoull(line.substr(field.size() + 1));
    }
    return 0;
}

// The whole disk behind "/" (for "/dev/nvme0n1p2", "nvme0n1"), from mountinfo and sysfs.
inline std::string rootDiskName() {
    std::ifstream mountinfo("/proc/self/mountinfo");
    for (std::string line; std::getline(mountinfo, line);) {
        std::istringstream fields(line);
        std::string id, parent, numbers, root, mountPoint;
        fields >> id >> parent >> numbers >> root >> mountPoint;
        if (mountPoint != "/") continue;
        std::error_code error;
        const auto device = std::filesystem::canonical("/sys/dev/block/" + numbers, error);
        if (error) return {};
        if (std::filesystem::exists(device / "partition")) return device.parent_path().filename();
        return device.filename();
    }
    return {};
}

// Block devices sda, sdb, ... in a temporary sysfs and /dev tree, for --sysfs-root and --dev-root.
// Making device nodes needs root; `made` tells whether it worked.
class FakeDisks {
public:
    explicit FakeDisks(int count) {
        char pattern[] = "/tmp/vantorix-disks-XXXXXX";
        root_ = ::mkdtemp(pattern);
        std::filesystem::create_directories(root_ + "/dev");
        for (int i = 0; i < count; ++i) {
            const std::string name = std::string("sd") + static_cast<char>('a' + i);
            std::filesystem::create_directories(root_ + "/sys/class/block/" + name);
            std::ofstream(root_ + "/sys/class/block/" + name + "/dev") << "8:" << i * 16 << "\n";
            made = made && ::mknod((root_ + "/dev/" + name).c_str(), S_IFBLK | 0600,
                                   makedev(8U, static_cast<unsigned>(i * 16))) == 0;
            names.push_back(name);
        }
    }
    ~FakeDisks() { std::filesystem::remove_all(root_); }
    std::vector<std::string> arguments() const { return {"--sysfs-root", root_ + "/sys", "--dev-root", root_ + "/dev"}; }
    std::string devicePath(const std::string& name) const { return root_ + "/dev/" + name; }

    std::vector<std::string> names;
    bool made = true;

private:
    std::string root_;
};

}  // namespace vantorix::testing
