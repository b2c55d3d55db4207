#include "helper/HelperServer.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

#include "log/Log.h"

namespace vantorix::helper {
namespace {

const log::Logger& serverLogger() { return log::logger("PrivilegedSmartctlHelper"); }

// After an accept fails (out of descriptors, say), the next try waits this long.
constexpr std::chrono::milliseconds kAcceptRetryDelay{100};
constexpr std::chrono::milliseconds kBusyRecheck{1000};

// The uid of the process that connected; nothing when the kernel does not say.
std::optional<uid_t> peerUid(int fd) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 || size != sizeof credentials) {
        serverLogger().debug("Refused a connection: its peer's credentials are unknown");
        return std::nullopt;
    }
    return credentials.uid;
}

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

// stop() cancels timers, which throws when the system refuses; a destructor must not throw, and
// nothing more can be done for a server that is going away.
HelperServer::~HelperServer() {
    try {
        stop();
    } catch (...) {  // see above
    }
}

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
    for (auto& [id, client] : std::exchange(connections_, {})) client.connection->close();
    runs_.stop();
}

void HelperServer::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, asio::local::stream_protocol::socket socket) {
        if (stopped_ || error == asio::error::operation_aborted) return;
        if (error) {
            serverLogger().error("Cannot accept a connection: {}", error.message());
            retryTimer_.expires_after(kAcceptRetryDelay);
            retryTimer_.async_wait([this](const asio::error_code& waitError) {
                if (!waitError && !stopped_) accept();
            });
            return;
        }
        lastActivity_ = std::chrono::steady_clock::now();
        const auto uid = peerUid(socket.native_handle());
        if (!uid || !admit(*uid)) {
            asio::error_code ignored;
            socket.close(ignored);
        } else {
            const std::uint64_t id = nextId_++;
            auto connection = std::make_shared<ClientConnection>(
                std::move(socket), context_, id, [this](std::uint64_t closedId) { connectionClosed(closedId); });
            connections_.emplace(id, Client{connection, *uid});
            connection->start();
            if (connections_.size() == kMaximumConnections && !std::exchange(reportedFull_, true)) {
                serverLogger().notice(
                    "{} clients are connected, the most at once; newcomers now take the place of "
                    "connections of the users holding the most",
                    kMaximumConnections);
            }
        }
        accept();
    });
}

bool HelperServer::admit(uid_t uid) {
    std::map<uid_t, std::size_t> held;
    for (const auto& [id, client] : connections_) ++held[client.uid];
    const std::size_t own = held[uid];
    // Root could stop the daemon outright; its clients count towards the total only.
    if (uid != 0 && own >= kMaximumConnectionsPerUser) {
        serverLogger().debug("Refused a connection of uid {}: it has {} already", uid, own);
        return false;
    }
    if (connections_.size() < kMaximumConnections) return true;
    // Full. The one to give way belongs to a user who keeps at least as many as the newcomer will
    // have, so that two users cannot take a place from each other in turn. Of those: an idle one
    // before one with a request under way, then the one whose user holds the most, then the one
    // idle (or busy) the longest. Busy ones give way too, or users who keep every connection busy
    // could keep the others out.
    const auto rank = [&held](const Client& client) {
        return std::tuple(client.connection->idle(), held[client.uid],
                          -client.connection->idleSince().time_since_epoch().count());
    };
    const Client* chosen = nullptr;
    for (const auto& [id, client] : connections_) {
        if (held[client.uid] >= own + 2 && (chosen == nullptr || rank(client) > rank(*chosen))) chosen = &client;
    }
    if (chosen == nullptr) {
        serverLogger().debug("Refused a connection of uid {}: {} clients are connected and none can give way", uid,
                             connections_.size());
        return false;
    }
    serverLogger().debug("Closing {} connection of uid {} ({} connections) for one of uid {}",
                         chosen->connection->idle() ? "an idle" : "a busy", chosen->uid, held[chosen->uid], uid);
    const auto giving = chosen->connection;  // closing it removes the entry
    giving->close();
    return true;
}

void HelperServer::connectionClosed(std::uint64_t id) {
    connections_.erase(id);
    if (connections_.size() <= kMaximumConnections / 2) reportedFull_ = false;
    lastActivity_ = std::chrono::steady_clock::now();
}

void HelperServer::watchIdleness() {
    const auto now = std::chrono::steady_clock::now();
    const bool idle = connections_.empty() && runs_.idle();
    if (idle && now - lastActivity_ >= exitWhenIdle_) {
        serverLogger().notice("No client for {} ms; exiting until the next connection", exitWhenIdle_.count());
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
