#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace vantorix::testing {

// A process that listens where the helper would, but is not the helper: in a child process running
// as `uid`, it listens on a Unix socket in a temporary folder and either closes every connection
// as soon as it accepts it, or keeps every connection and reads what comes without ever answering.
// It reports the connections it accepted and the bytes it read. Killed, reaped and removed with
// the object.
class HelperSocketStandIn {
public:
    enum class Behaviour { closeAtOnce, neverAnswer };

    HelperSocketStandIn(Behaviour behaviour, uid_t uid);
    ~HelperSocketStandIn();
    HelperSocketStandIn(const HelperSocketStandIn&) = delete;
    HelperSocketStandIn& operator=(const HelperSocketStandIn&) = delete;

    const std::string& path() const { return path_; }

    struct Counts {
        std::uint64_t connections = 0;  // accepted
        std::uint64_t bytes = 0;        // read from them
        std::uint64_t closed = 0;       // closed by it (closeAtOnce) or by the client
        friend bool operator==(const Counts&, const Counts&) = default;
    };
    // What it has reported so far.
    Counts counts();
    // Waits (at most `limit`) until `done` holds for what it reported; what it reported then.
    Counts waitFor(const std::function<bool(const Counts&)>& done, std::chrono::milliseconds limit);

private:
    std::string directory_, path_;
    pid_t pid_ = -1;
    int report_ = -1;
    std::string reports_;
};

}  // namespace vantorix::testing
