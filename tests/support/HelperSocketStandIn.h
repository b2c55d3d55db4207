#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "support/TemporaryFolder.h"

namespace vantorix::testing {

// Something that listens where the helper would, but is not the helper: a Unix socket in a
// temporary folder, bound and listened on as `uid` (what a client's peer check sees), that either
// closes every connection as soon as it accepts it, or keeps every connection and reads what comes
// without ever answering. It counts the connections it accepted and the bytes it read. Stopped and
// removed with the object.
class HelperSocketStandIn {
public:
    enum class Behaviour { closeAtOnce, neverAnswer };

    HelperSocketStandIn(Behaviour behaviour, uid_t uid);
    ~HelperSocketStandIn();

    const std::string& path() const { return path_; }

    struct Counts {
        std::uint64_t connections = 0;  // accepted
        std::uint64_t bytes = 0;        // read from them
        std::uint64_t closed = 0;       // closed by it (closeAtOnce) or by the client
        friend bool operator==(const Counts&, const Counts&) = default;
    };
    Counts counts() const { return {connections_, bytes_, closed_}; }
    // Waits (at most `limit`) until `done` holds for the counts; the counts then.
    Counts waitFor(const std::function<bool(const Counts&)>& done, std::chrono::milliseconds limit);

private:
    void serve(Behaviour behaviour);

    TemporaryFolder folder_;
    std::string path_;
    int listener_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<std::uint64_t> connections_{0}, bytes_{0}, closed_{0};
    std::thread server_;
};

}  // namespace vantorix::testing
