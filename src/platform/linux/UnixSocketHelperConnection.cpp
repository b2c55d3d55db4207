#include "platform/linux/UnixSocketHelperConnection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio/local/stream_protocol.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <system_error>

#include "concurrency/SerialQueue.h"
#include "log/Log.h"
#include "util/Result.h"

namespace vantorix {
namespace {

using protocol::HelperError;
using Socket = asio::local::stream_protocol::socket;

ConnectionError connectionError(ConnectionFailure failure, std::string description) {
    return ConnectionError{failure, std::move(description)};
}

// A connected, close-on-exec socket to `path` whose peer runs as `uid`; or why there is none.
Result<int, ConnectionError> connectToPeer(const std::string& path, uid_t uid) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        return Failure{connectionError(ConnectionFailure::connectFailed, "the socket path " + path + " is not usable")};
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return Failure{connectionError(ConnectionFailure::connectFailed,
                                       std::string("socket: ") + std::generic_category().message(errno))};
    // A Unix socket connects at once or not at all (EAGAIN: the listener's backlog is full).
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        ::close(fd);
        return Failure{connectionError(ConnectionFailure::connectFailed,
                                       "cannot connect to " + path + ": " + std::generic_category().message(error))};
    }
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        const int error = errno;
        ::close(fd);
        return Failure{connectionError(
            ConnectionFailure::connectFailed,
            std::string("cannot read the peer's credentials: ") + std::generic_category().message(error))};
    }
    if (peer.uid != uid) {
        ::close(fd);
        return Failure{connectionError(ConnectionFailure::peerNotRoot, "the process listening at " + path +
                                                                           " runs as user " + std::to_string(peer.uid) +
                                                                           ", not as user " + std::to_string(uid) +
                                                                           "; nothing was sent to it")};
    }
    return fd;
}

const log::Logger& connectionLogger() { return log::logger("SmartctlHelperClient"); }

constexpr std::size_t kKeptBufferBytes = std::size_t{1024} * 1024;

// What a request does with its reply and with a failed connection. `answer` takes the reply of
// type `Wanted` (as `take` hands it over) or the helper's error; any other reply is not this
// request's, and the handler says so with false.
struct ReplyHandlers {
    std::function<bool(protocol::Reply&)> reply;
    std::function<void(ConnectionError)> fail;
};

template <typename Wanted, typename Answer, typename Take>
ReplyHandlers replyHandlers(std::function<void(Answer)> answer, Take take) {
    auto shared = std::make_shared<std::function<void(Answer)>>(std::move(answer));
    return {[shared, take](protocol::Reply& reply) {
                if (auto* wanted = std::get_if<Wanted>(&reply)) {
                    (*shared)(take(*wanted));
                    return true;
                }
                if (auto* error = std::get_if<HelperError>(&reply)) {
                    (*shared)(std::move(*error));
                    return true;
                }
                return false;
            },
            [shared](ConnectionError error) { (*shared)(std::move(error)); }};
}

}  // namespace

struct UnixSocketHelperConnection::State : std::enable_shared_from_this<State> {
    // One request waiting for its reply. `answer` takes the helper's reply when it is of the kind
    // the request expects (and returns true), and refuses any other (false); `fail` answers with a
    // failure of the connection. Exactly one of the two is called, once.
    struct Pending {
        std::function<bool(protocol::Reply&)> answer;
        std::function<void(ConnectionError)> fail;
    };

    State(std::string path, uid_t uid)
        : queue(std::make_unique<SerialQueue>("com.vantorix.SmartctlHelperClient.reply", QualityOfService::utility)),
          socketPath(std::move(path)),
          peerUid(uid) {}

    // Declared first: destroyed last, after the socket that lives on it.
    std::unique_ptr<SerialQueue> queue;
    const std::string socketPath;
    const uid_t peerUid;

    // Everything below belongs to the queue.
    std::function<void()> invalidationHandler;
    std::function<void()> interruptionHandler;
    std::optional<Socket> socket;
    std::deque<Pending> outstanding;
    std::deque<std::string> writes;
    bool writing = false;
    bool invalidated = false;
    unsigned char header[protocol::kFrameHeaderBytes]{};
    std::string payload;

    void send(const std::string& request, Pending pending) {
        if (invalidated) {
            pending.fail(connectionError(ConnectionFailure::invalidated,
                                         "the connection to the privileged helper was invalidated"));
            return;
        }
        if (!socket) {
            auto fd = connectToPeer(socketPath, peerUid);
            if (!fd.ok()) {
                invalidateNow();
                pending.fail(fd.error());
                return;
            }
            socket.emplace(queue->context());
            asio::error_code error;
            socket->assign(asio::local::stream_protocol(), fd.value(), error);
            if (error) {
                ::close(fd.value());
                socket.reset();
                invalidateNow();
                pending.fail(connectionError(ConnectionFailure::connectFailed,
                                             "cannot use the helper's socket: " + error.message()));
                return;
            }
            readHeader();
        }
        outstanding.push_back(std::move(pending));
        writes.push_back(protocol::framed(request));
        writeNext();
    }

    void writeNext() {
        if (writing || writes.empty() || !socket) return;
        writing = true;
        asio::async_write(*socket, asio::buffer(writes.front()),
                          [weak = weak_from_this()](const asio::error_code& error, std::size_t) {
                              const auto self = weak.lock();
                              if (!self) return;
                              self->writing = false;
                              if (error) {
                                  if (error != asio::error::operation_aborted)
                                      self->lost("writing failed: " + error.message());
                                  return;
                              }
                              self->writes.pop_front();
                              self->writeNext();
                          });
    }

    void readHeader() {
        asio::async_read(*socket, asio::buffer(header),
                         [weak = weak_from_this()](const asio::error_code& error, std::size_t) {
                             const auto self = weak.lock();
                             if (!self) return;
                             if (error) {
                                 if (error != asio::error::operation_aborted) self->lost(error.message());
                                 return;
                             }
                             const auto length = protocol::payloadLength(self->header);
                             if (!length) {
                                 self->broken("the helper sent a frame over the size limit");
                                 return;
                             }
                             self->payload.assign(*length, '\0');
                             asio::async_read(*self->socket, asio::buffer(self->payload),
                                              [weak](const asio::error_code& readError, std::size_t) {
                                                  const auto state = weak.lock();
                                                  if (!state) return;
                                                  if (readError) {
                                                      if (readError != asio::error::operation_aborted)
                                                          state->lost(readError.message());
                                                      return;
                                                  }
                                                  if (state->deliver()) state->readHeader();
                                              });
                         });
    }

    // Hands the reply in `payload` to the oldest outstanding request. False when the reply broke
    // the conversation (the connection is then invalid).
    bool deliver() {
        if (outstanding.empty()) {
            broken("the helper sent a reply nobody asked for");
            return false;
        }
        auto reply = protocol::parsedReply(payload);
        // A typical reply's buffer is kept for the next one (a refresh comes every second); an
        // unusually large one is given back.
        payload.clear();
        if (payload.capacity() > kKeptBufferBytes) payload.shrink_to_fit();
        Pending pending = std::move(outstanding.front());
        outstanding.pop_front();
        if (reply && pending.answer(*reply)) return true;
        const std::string reason = reply ? "the helper answered with a reply of another kind"
                                         : "the helper sent a malformed reply";
        pending.fail(connectionError(ConnectionFailure::malformedReply, reason));
        broken(reason);
        return false;
    }

    // The stream ended or failed. With requests outstanding the helper went away in the middle of
    // the conversation: an interruption, and those requests fail now. Without, it closed an idle
    // connection.
    void lost(const std::string& reason) {
        closeSocket();
        if (outstanding.empty()) {
            connectionLogger().debug("The privileged helper closed an idle connection ({})", reason);
            return;
        }
        auto failed = std::move(outstanding);
        outstanding.clear();
        if (interruptionHandler) interruptionHandler();
        for (auto& pending : failed) {
            pending.fail(connectionError(ConnectionFailure::brokenStream,
                                         "the privileged helper closed the connection before answering: " + reason));
        }
    }

    // The helper broke the protocol: every outstanding request fails and the connection is done.
    void broken(const std::string& reason) {
        failOutstanding(ConnectionFailure::malformedReply, "the privileged helper broke the protocol: " + reason);
        invalidateNow();
    }

    void failOutstanding(ConnectionFailure failure, const std::string& description) {
        auto failed = std::move(outstanding);
        outstanding.clear();
        for (auto& pending : failed) pending.fail(connectionError(failure, description));
    }

    void closeSocket() {
        if (socket) {
            asio::error_code ignored;
            socket->close(ignored);
            socket.reset();
        }
        writes.clear();
        writing = false;
        payload.clear();
    }

    void invalidateNow() {
        if (invalidated) return;
        invalidated = true;
        closeSocket();
        failOutstanding(ConnectionFailure::invalidated, "the connection to the privileged helper was invalidated");
        if (auto handler = std::exchange(invalidationHandler, nullptr)) handler();
        interruptionHandler = nullptr;
    }

    void enqueue(std::string request, Pending pending) {
        queue->async([weak = weak_from_this(), request = std::move(request), pending = std::move(pending)]() mutable {
            if (const auto self = weak.lock()) self->send(request, std::move(pending));
        });
    }
};

std::shared_ptr<UnixSocketHelperConnection> UnixSocketHelperConnection::create(std::string socketPath,
                                                                               uid_t requiredPeerUid) {
    return std::shared_ptr<UnixSocketHelperConnection>(
        new UnixSocketHelperConnection(std::move(socketPath), requiredPeerUid));
}

UnixSocketHelperConnection::UnixSocketHelperConnection(std::string socketPath, uid_t requiredPeerUid)
    : state_(std::make_shared<State>(std::move(socketPath), requiredPeerUid)) {}

UnixSocketHelperConnection::~UnixSocketHelperConnection() {
    auto& queue = *state_->queue;
    const auto close = [state = state_] {
        state->closeSocket();
        state->failOutstanding(ConnectionFailure::invalidated, "the connection to the privileged helper was closed");
    };
    if (queue.isCurrent()) close();
    else queue.sync(close);
}

void UnixSocketHelperConnection::setInvalidationHandler(std::function<void()> handler) {
    state_->queue->sync([&] { state_->invalidationHandler = std::move(handler); });
}

void UnixSocketHelperConnection::setInterruptionHandler(std::function<void()> handler) {
    state_->queue->sync([&] { state_->interruptionHandler = std::move(handler); });
}

void UnixSocketHelperConnection::invalidate() {
    state_->queue->async([weak = std::weak_ptr<State>(state_)] {
        if (const auto state = weak.lock()) state->invalidateNow();
    });
}

void UnixSocketHelperConnection::fetchSmartData(const std::string& deviceName,
                                                std::function<void(FetchAnswer)> answer) {
    auto handlers = replyHandlers<SmartctlExecutionResult>(
        std::move(answer), [](SmartctlExecutionResult& result) { return std::move(result); });
    state_->enqueue(protocol::encodedRequest(protocol::FetchRequest{deviceName}),
                    {std::move(handlers.reply), std::move(handlers.fail)});
}

void UnixSocketHelperConnection::helperVersion(std::function<void(VersionAnswer)> answer) {
    auto handlers = replyHandlers<protocol::VersionReply>(
        std::move(answer), [](protocol::VersionReply& reply) { return std::move(reply.version); });
    state_->enqueue(protocol::encodedRequest(protocol::VersionRequest{}),
                    {std::move(handlers.reply), std::move(handlers.fail)});
}

std::shared_ptr<HelperConnection> UnixSocketHelperConnector::connect() {
    return UnixSocketHelperConnection::create(socketPath_(), requiredPeerUid_);
}

bool helperListensAt(const std::string& socketPath, uid_t uid) {
    auto fd = connectToPeer(socketPath, uid);
    if (!fd.ok()) return false;
    ::close(fd.value());
    return true;
}

}  // namespace vantorix
