#pragma once

// Helpers shared by the tests that drive the real vantorix-smartctl-helper over its socket.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "protocol/SmartctlHelperProtocol.h"
#include "support/HelperDaemon.h"
#include "support/SmartctlStandIn.h"

namespace vantorix::testing {

inline const std::string kHelperFixture = std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json";

inline StandInBehaviour printing(const std::string& file) { return {StandInBehaviour::Mode::print, file, "", 0}; }

inline std::unique_ptr<HelperDaemon> startHelper(const std::string& smartctl, std::vector<std::string> extra = {}) {
    std::string error;
    auto daemon = HelperDaemon::start({smartctl, std::move(extra)}, &error);
    EXPECT_NE(daemon, nullptr) << error;
    return daemon;
}

inline std::string fetchFrame(const std::string& name) {
    return protocol::framed(protocol::encodedRequest(protocol::FetchRequest{name}));
}
inline std::string versionFrame() { return protocol::framed(protocol::encodedRequest(protocol::VersionRequest{})); }

// The daemon's peak resident memory stays below this (about 23 MB in a release build, 70 MB under
// AddressSanitizer); a 100 MB flood kept or fifty private copies of a 4 MiB reply go far past it.
constexpr std::uint64_t kPeakKilobytes = 96U * 1024U;

// One client connection, closed with the object.
struct HelperClient {
    explicit HelperClient(const std::string& socketPath) : fd(connectTo(socketPath)) {}
    explicit HelperClient(int connected) : fd(connected) {}
    ~HelperClient() { ::close(fd); }
    HelperClient(const HelperClient&) = delete;
    HelperClient& operator=(const HelperClient&) = delete;

    bool send(const std::string& bytes) const { return sendAll(fd, bytes); }
    // The next reply; nothing when none arrives (whole and well-formed) within the limit.
    std::optional<protocol::Reply> reply(std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
        const auto payload = readFrame(fd, limit);
        return payload ? protocol::parsedReply(*payload) : std::nullopt;
    }
    std::optional<protocol::Reply> ask(const std::string& frame) const { return send(frame) ? reply() : std::nullopt; }

    int fd;
};

// The helper's error code in a reply; nothing for any other reply (or none).
inline std::optional<protocol::HelperFailure> failure(const std::optional<protocol::Reply>& reply) {
    const auto* error = reply ? std::get_if<protocol::HelperError>(&*reply) : nullptr;
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

}  // namespace vantorix::testing
