#include "helper/ListeningSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace vantorix::helper {
namespace {

std::string systemError(std::string_view what, int error) {
    return fmt::format("{}: {}", what, std::generic_category().message(error));
}

// Makes every missing folder of the path, each 0755.
bool makeFolders(const std::string& folder) {
    if (folder.empty()) return true;
    struct stat st {};
    if (::stat(folder.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    const auto slash = folder.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !makeFolders(folder.substr(0, slash))) return false;
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return false;
    return ::chmod(folder.c_str(), 0755) == 0 || errno == EPERM;
}

bool fillAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Whether a process accepts connections on the socket at the path.
bool somebodyListens(const sockaddr_un& address) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const bool answered = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(probe);
    return answered;
}

}  // namespace

Result<int, std::string> activatedSocket() {
    const int count = ::sd_listen_fds(1);
    if (count < 0) return Failure{systemError("Cannot take the sockets systemd passed", -count)};
    if (count == 0) return -1;
    if (count != 1 || ::sd_is_socket_unix(SD_LISTEN_FDS_START, SOCK_STREAM, 1, nullptr, 0) <= 0) {
        return Failure{fmt::format(
            "systemd passed {} descriptors; the helper needs exactly one listening Unix stream socket", count)};
    }
    return SD_LISTEN_FDS_START;
}

Result<std::unique_ptr<SocketFile>, std::string> SocketFile::create(const std::string& path) {
    sockaddr_un address{};
    if (!fillAddress(path, address)) {
        return Failure{
            fmt::format("\"{}\" cannot be a socket path (1 to {} bytes)", path, sizeof(address.sun_path) - 1)};
    }
    const auto slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && !makeFolders(path.substr(0, slash))) {
        return Failure{systemError(fmt::format("Cannot make the folder of {}", path), errno)};
    }
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) return Failure{fmt::format("{} exists and is not a socket", path)};
        if (somebodyListens(address)) return Failure{fmt::format("Another process listens on {}", path)};
        if (::unlink(path.c_str()) != 0)
            return Failure{systemError(fmt::format("Cannot remove the stale socket {}", path), errno)};
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return Failure{systemError("Cannot make a socket", errno)};
    const auto fail = [fd](std::string message) {
        ::close(fd);
        return Failure{std::move(message)};
    };
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return fail(systemError(fmt::format("Cannot bind {}", path), errno));
    }
    std::unique_ptr<SocketFile> file;
    if (::lstat(path.c_str(), &st) != 0) {
        const int error = errno;
        ::close(fd);
        return Failure{systemError(fmt::format("Cannot find {} after binding it", path), error)};
    }
    file.reset(new SocketFile(path, fd, st.st_ino));
    // Any local user may ask; what runs is decided here alone.
    if (::chmod(path.c_str(), 0666) != 0)
        return Failure{systemError(fmt::format("Cannot open {} to all users", path), errno)};
    if (::listen(fd, SOMAXCONN) != 0) return Failure{systemError(fmt::format("Cannot listen on {}", path), errno)};
    return file;
}

SocketFile::~SocketFile() {
    if (fd_ >= 0) ::close(fd_);
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_ino == inode_) ::unlink(path_.c_str());
}

int SocketFile::release() { return std::exchange(fd_, -1); }

}  // namespace vantorix::helper
