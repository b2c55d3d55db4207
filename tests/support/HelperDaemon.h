#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace vantorix::testing {

// The real vantorix-smartctl-helper, as built, listening on a socket in a temporary folder.
class HelperDaemon {
public:
    struct Options {
        std::string smartctl;
        std::vector<std::string> extraArguments;
        std::string program = {};  // empty: the daemon of this build
    };

    // Starts the daemon with --socket <tmp>/helper.sock --smartctl <smartctl> plus extraArguments,
    // and waits (at most 5 s) until its socket accepts connections. The folder is open to every user,
    // like the daemon's own. Its standard error goes to a file. nullptr (with *error) on failure.
    static std::unique_ptr<HelperDaemon> start(const Options& options, std::string* error);
    // Stops the daemon (see stop()) and removes its temporary folder.
    ~HelperDaemon();

    const std::string& socketPath() const { return socketPath_; }
    pid_t pid() const { return process_->pid(); }

    // SIGTERM, then waits (5 s, then SIGKILL) and reaps: the exit status (128 + signal when killed).
    int stop();

private:
    HelperDaemon() = default;
    TemporaryFolder folder_;
    std::string socketPath_;
    std::unique_ptr<RunningProcess> process_;
};

// A small blocking client for tests: raw bytes, frames and time limits.

// A connected Unix stream socket (close-on-exec), or -1.
int connectTo(const std::string& socketPath);
// The same, connected by a child running as uid (and gid uid, no other group): the peer the daemon
// sees is that user. -1 when the connection fails.
int connectAs(uid_t uid, const std::string& socketPath);
// False when the peer is gone (no SIGPIPE).
bool sendAll(int fd, std::string_view bytes);
// The payload of the next frame, or nothing when none arrives complete within the limit or the
// connection ends first.
std::optional<std::string> readFrame(int fd, std::chrono::milliseconds limit);
// Whether the peer closes the connection within the limit (what it sends until then is dropped).
bool peerClosed(int fd, std::chrono::milliseconds limit);
// The same, reading nothing: for a client that leaves what it is sent unread.
bool peerHungUp(int fd, std::chrono::milliseconds limit);

// A field of /proc/PID/status in kB (VmHWM, VmRSS); 0 when missing.
std::uint64_t statusKilobytes(pid_t pid, const std::string& field);
// The whole disk behind "/" (for "/dev/nvme0n1p2", "nvme0n1"), from mountinfo and sysfs.
std::string rootDiskName();

}  // namespace vantorix::testing
