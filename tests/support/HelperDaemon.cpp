#include "support/HelperDaemon.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace vantorix::testing {
namespace {

using Clock = std::chrono::steady_clock;

int remainingMilliseconds(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Reads exactly `size` bytes before the deadline; false on time-out, end of file or error.
bool readExactly(int fd, char* data, std::size_t size, Clock::time_point deadline) {
    std::size_t done = 0;
    while (done < size) {
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, remainingMilliseconds(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t count = ::recv(fd, data + done, size - done, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

std::optional<sockaddr_un> addressOf(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(address.sun_path)) return std::nullopt;
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    return address;
}

}  // namespace

std::unique_ptr<HelperDaemon> HelperDaemon::start(const Options& options, std::string* error) {
    std::unique_ptr<HelperDaemon> daemon(new HelperDaemon());
    ::chmod(daemon->folder_.string().c_str(), 0755);
    daemon->socketPath_ = daemon->folder_.string() + "/helper.sock";
    std::vector<std::string> arguments{options.program.empty() ? VANTORIX_HELPER_PATH : options.program, "--socket",
                                       daemon->socketPath_, "--smartctl", options.smartctl};
    arguments.insert(arguments.end(), options.extraArguments.begin(), options.extraArguments.end());
    daemon->process_ = RunningProcess::start(arguments);
    for (const auto deadline = Clock::now() + std::chrono::seconds(5); Clock::now() < deadline;) {
        if (const auto status = daemon->process_->waitForExit(std::chrono::milliseconds(10))) {
            *error = "the helper exited (" + std::to_string(*status) + "): " + daemon->process_->standardError();
            return nullptr;
        }
        if (const int fd = connectTo(daemon->socketPath_); fd >= 0) {
            ::close(fd);
            return daemon;
        }
    }
    *error = "the helper did not listen on " + daemon->socketPath_ + " within 5 s";
    return nullptr;
}

int HelperDaemon::stop() {
    if (const auto status = process_->waitForExit(std::chrono::milliseconds(0))) return *status;
    process_->signal(SIGTERM);
    if (const auto status = process_->waitForExit(std::chrono::seconds(5))) return *status;
    process_->signal(SIGKILL);
    return process_->waitForExit(std::chrono::seconds(5)).value_or(-1);
}

HelperDaemon::~HelperDaemon() {
    if (process_) stop();
}

int connectTo(const std::string& socketPath) {
    const auto address = addressOf(socketPath);
    const int fd = address ? ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

int connectAs(uid_t uid, const std::string& socketPath) {
    const auto address = addressOf(socketPath);
    const int fd = address ? ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
    // The peer's credentials are taken at connect(): a child connects the descriptor it shares.
    const pid_t pid = fd >= 0 ? ::fork() : -1;
    if (pid == 0) {
        const bool connected = ::setgroups(0, nullptr) == 0 && ::setresgid(uid, uid, uid) == 0 &&
                               ::setresuid(uid, uid, uid) == 0 &&
                               ::connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) == 0;
        ::_exit(connected ? 0 : 1);
    }
    if (pid > 0 && waitForExit(pid, std::chrono::seconds(10)) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

bool sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

std::optional<std::string> readFrame(int fd, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    unsigned char header[4];
    if (!readExactly(fd, reinterpret_cast<char*>(header), sizeof header, deadline)) return std::nullopt;
    const std::size_t length = std::size_t{header[0]} << 24U | std::size_t{header[1]} << 16U |
                               std::size_t{header[2]} << 8U | std::size_t{header[3]};
    std::string payload(length, '\0');
    if (!readExactly(fd, payload.data(), length, deadline)) return std::nullopt;
    return payload;
}

bool peerClosed(int fd, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    char buffer[4096];
    while (true) {
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, remainingMilliseconds(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
        if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return true;
    }
}

bool peerHungUp(int fd, std::chrono::milliseconds limit) {
    pollfd entry{fd, POLLRDHUP, 0};
    int ready = 0;
    while ((ready = ::poll(&entry, 1, static_cast<int>(limit.count()))) < 0 && errno == EINTR) {
    }
    return ready > 0 && (entry.revents & (POLLRDHUP | POLLHUP)) != 0;
}

std::uint64_t statusKilobytes(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::stoull(line.substr(field.size() + 1));
    }
    return 0;
}

std::string rootDiskName() {
    std::ifstream mountinfo("/proc/self/mountinfo");
    for (std::string line; std::getline(mountinfo, line);) {
        std::istringstream fields(line);
        std::string id, parent, numbers, root, mountPoint;
        fields >> id >> parent >> numbers >> root >> mountPoint;
        if (mountPoint != "/") continue;
        std::error_code error;
        const auto device = std::filesystem::canonical("/sys/dev/block/" + numbers, error);
        if (error) return {};
        return std::filesystem::exists(device / "partition") ? device.parent_path().filename() : device.filename();
    }
    return {};
}

}  // namespace vantorix::testing
