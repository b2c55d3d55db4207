#pragma once

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "helper/ClientConnection.h"
#include "helper/DeviceNameValidator.h"
#include "helper/RunCoalescer.h"
#include "helper/SmartctlRun.h"

namespace vantorix::helper {

struct HelperSettings {
    std::string smartctl = "/usr/sbin/smartctl";
    DeviceRoots roots;
    RunLimits limits;
    std::chrono::milliseconds clientIdleTimeout{5000};
    // How long a finished run's result still answers requests for its device.
    std::chrono::milliseconds shareWindow = RunCoalescer::kDefaultShareWindow;
    // After this long with no client and nothing running, idleExit() is called; zero: never.
    std::chrono::milliseconds exitWhenIdle{0};
    std::string version;
};

// Accepts clients on a listening socket, at most kMaximumConnections at once and at most
// kMaximumConnectionsPerUser of one uid other than root (the peer's credentials at connect time): a connection
// beyond that is accepted and closed at once. When the server is full, a newcomer takes the place of
// a connection of the user holding the most, the longest-idle one first, provided that user keeps
// at least as many as the newcomer then has: no user can keep another out. Everything runs on the
// one io_context it is given.
class HelperServer {
public:
    // Each connection costs a descriptor, a few KiB of buffers and up to 16 queued replies: 64 of
    // them stay far below the descriptor limit and the memory a root daemon should take.
    static constexpr std::size_t kMaximumConnections = 64;
    // A desktop session, the exporter and a few command-line runs each keep one connection; eight
    // leaves room for all of them, and it takes eight users to fill the server.
    static constexpr std::size_t kMaximumConnectionsPerUser = 8;

    HelperServer(asio::io_context& io, asio::local::stream_protocol::acceptor acceptor, const HelperSettings& settings,
                 std::function<void()> idleExit);
    ~HelperServer();
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

    void start();
    // Stops accepting, closes every connection and kills every smartctl still running.
    void stop();
    // After stop(): every smartctl it killed has been reaped, and the daemon may exit.
    bool childrenEnded() const { return runs_.stoppedChildrenEnded(); }

private:
    struct Client {
        std::shared_ptr<ClientConnection> connection;
        uid_t uid;
    };

    void accept();
    // Whether a connection of uid may be added now, closing an idle one to make room if need be.
    bool admit(uid_t uid);
    void connectionClosed(std::uint64_t id);
    void watchIdleness();

    asio::io_context& io_;
    asio::local::stream_protocol::acceptor acceptor_;
    RunCoalescer runs_;
    ConnectionContext context_;
    std::function<void()> idleExit_;
    std::chrono::milliseconds exitWhenIdle_;
    asio::steady_timer retryTimer_;
    asio::steady_timer idleTimer_;
    std::map<std::uint64_t, Client> connections_;
    std::uint64_t nextId_ = 1;
    bool reportedFull_ = false;  // said once until the server is half empty again
    std::chrono::steady_clock::time_point lastActivity_;
    bool stopped_ = false;
};

}  // namespace vantorix::helper
