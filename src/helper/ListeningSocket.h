#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "util/Result.h"

namespace vantorix::helper {

// The socket systemd passed (socket activation): its descriptor; -1 when none was passed. An error
// text when what was passed is not exactly one listening Unix stream socket.
Result<int, std::string> activatedSocket();

// A Unix stream socket the daemon listens on at a path of its own: the parent folder is made when
// missing (0755), a stale socket at the path is removed (a socket only, and only when nobody
// answers on it), the socket is bound, opened to every local user (0666) and listens. The file is
// removed with the object, unless something else has replaced it by then.
class SocketFile {
public:
    static Result<std::unique_ptr<SocketFile>, std::string> create(const std::string& path);
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    // The listening descriptor, handed over to its new owner.
    int release();

private:
    SocketFile(std::string path, int fd, ino_t inode) : path_(std::move(path)), fd_(fd), inode_(inode) {}
    std::string path_;
    int fd_;
    ino_t inode_;
};

}  // namespace vantorix::helper
