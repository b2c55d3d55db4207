#include "helper/HelperServer.h"

#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "log/Log.h"

namespace vantorix::helper {
namespace {

const log::Logger& logger() { return log::logger("PrivilegedSmartctlHelper"); }

// After an accept fails (out of descriptors, say), the next try waits this long.
constexpr std::chrono::milliseconds kAcceptRetryDelay{100};
constexpr std::chrono::milliseconds kBusyRecheck{1000};

}  // namespace

HelperServer::HelperServer(asio::io_context& io, asio::local::stream_protocol::acceptor acceptor,
                           const HelperSettings& settings, std::function<void()> idleExit)
    : io_(io),
      acceptor_(std::move(acceptor)),
      runs_(io, settings.smartctl, settings.limits, settings.shareWindow),
      context_{runs_, settings.roots, settings.version, settings.clientIdleTimeout},
      idleExit_(std::move(idleExit)),
      exitWhenIdle_(settings.exitWhenIdle),
      retryTimer_(io),
      idleTimer_(io) {}

HelperServer::~HelperServer() { stop(); }

void HelperServer::start() {
    ::fcntl(acceptor_.native_handle(), F_SETFD, FD_CLOEXEC);
    lastActivity_ = std::chrono::steady_clock::now();
    accept();
    if (exitWhenIdle_.count() > 0) watchIdleness();
}

void HelperServer::stop() {
    if (stopped_) return;
    stopped_ = true;
    asio::error_code ignored;
    acceptor_.close(ignored);
    retryTimer_.cancel();
    idleTimer_.cancel();
    for (auto& [id, connection] : std::exchange(connections_, {})) connection->close();
    runs_.stop();
}

void HelperServer::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, asio::local::stream_protocol::socket socket) {
        if (stopped_ || error == asio::error::operation_aborted) return;
        if (error) {
            logger().error("Cannot accept a connection: {}", error.message());
            retryTimer_.expires_after(kAcceptRetryDelay);
            retryTimer_.async_wait([this](const asio::error_code& waitError) {
                if (!waitError && !stopped_) accept();
            });
            return;
        }
        lastActivity_ = std::chrono::steady_clock::now();
        if (connections_.size() >= kMaximumConnections) {
            logger().error("Refused a connection: {} clients are connected already", connections_.size());
            asio::error_code ignored;
            socket.close(ignored);
        } else {
            const std::uint64_t id = nextId_++;
            auto connection = std::make_shared<ClientConnection>(std::move(socket), context_, id,
                                                                 [this](std::uint64_t closedId) { connectionClosed(closedId); });
            connections_.emplace(id, connection);
            connection->start();
        }
        accept();
    });
}

void HelperServer::connectionClosed(std::uint64_t id) {
    connections_.erase(id);
    lastActivity_ = std::chrono::steady_clock::now();
}

void HelperServer::watchIdleness() {
    const auto now = std::chrono::steady_clock::now();
    const bool idle = connections_.empty() && runs_.idle();
    if (idle && now - lastActivity_ >= exitWhenIdle_) {
        logger().notice("No client for {} ms; exiting until the next connection", exitWhenIdle_.count());
        if (idleExit_) idleExit_();
        return;
    }
    // Idle: look again when the period since the last activity ends. Busy: within a second.
    idleTimer_.expires_at(idle ? lastActivity_ + exitWhenIdle_ : now + std::min(exitWhenIdle_, kBusyRecheck));
    idleTimer_.async_wait([this](const asio::error_code& error) {
        if (!error && !stopped_) watchIdleness();
    });
}

}  // namespace vantorix::helper
