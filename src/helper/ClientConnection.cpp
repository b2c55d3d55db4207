#include "helper/ClientConnection.h"

#include <fcntl.h>

#include <asio/read.hpp>
#include <asio/write.hpp>

#include <algorithm>
#include <utility>
#include <variant>

#include "log/Log.h"

namespace vantorix::helper {
namespace {

const log::Logger& logger() { return log::logger("PrivilegedSmartctlHelper"); }

}  // namespace

ClientConnection::ClientConnection(asio::local::stream_protocol::socket socket, ConnectionContext& context,
                                   std::uint64_t id, std::function<void(std::uint64_t)> closed)
    : socket_(std::move(socket)),
      context_(context),
      id_(id),
      closed_(std::move(closed)),
      idleTimer_(socket_.get_executor()),
      writeTimer_(socket_.get_executor()) {}

void ClientConnection::start() {
    // Nothing the daemon starts may inherit the connection.
    ::fcntl(socket_.native_handle(), F_SETFD, FD_CLOEXEC);
    becameIdle();
    readHeader();
}

void ClientConnection::close() {
    if (isClosed_) return;
    isClosed_ = true;
    idleTimer_.cancel();
    writeTimer_.cancel();
    asio::error_code ignored;
    socket_.shutdown(asio::socket_base::shutdown_both, ignored);
    socket_.close(ignored);
    pending_.clear();
    payload_.clear();
    if (auto closed = std::exchange(closed_, nullptr)) closed(id_);
}

void ClientConnection::readHeader() {
    if (isClosed_ || peerDoneSending_) return;
    if (pending_.size() >= kMaximumRequestsInFlight) {
        reading_ = false;  // resumed once a reply has been written
        return;
    }
    reading_ = true;
    // What has come of the header is kept, so that a frame begun counts as a request being read.
    socket_.async_read_some(asio::buffer(header_ + headerBytes_, sizeof header_ - headerBytes_),
                            [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
                                if (self->isClosed_) return;
                                if (error) {
                                    self->peerStopped(error);
                                    return;
                                }
                                self->headerBytes_ += count;
                                if (self->headerBytes_ < sizeof self->header_) {
                                    self->readHeader();
                                    return;
                                }
                                const auto length = protocol::payloadLength(self->header_,
                                                                            protocol::kMaximumRequestBytes);
                                if (!length) {
                                    logger().debug("Connection {}: a request over {} bytes; closing it", self->id_,
                                                   protocol::kMaximumRequestBytes);
                                    self->close();
                                    return;
                                }
                                self->payload_.resize(*length);
                                self->readPayload();
                            });
}

void ClientConnection::readPayload() {
    asio::async_read(socket_, asio::buffer(payload_),
                     [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                         if (self->isClosed_) return;
                         if (error) {
                             self->peerStopped(error);
                             return;
                         }
                         self->frameArrived();
                     });
}

void ClientConnection::peerStopped(const asio::error_code& error) {
    reading_ = false;
    headerBytes_ = 0;  // half a frame is dropped
    payload_.clear();
    if (error != asio::error::eof) {
        logger().debug("Connection {}: {}; closing it", id_, error.message());
        close();
        return;
    }
    // The client may have sent its last request and shut down its side: it still gets its replies.
    peerDoneSending_ = true;
    if (pending_.empty()) close();
}

void ClientConnection::frameArrived() {
    ++idleGeneration_;  // a complete frame: the idle timer no longer applies
    idleTimer_.cancel();
    headerBytes_ = 0;
    const std::string payload = std::exchange(payload_, std::string());
    auto parsed = protocol::parsedRequest(payload);
    if (!parsed) {
        logger().debug("Connection {}: a frame of {} bytes that is not a JSON object; closing it", id_, payload.size());
        close();
        return;
    }
    const std::uint64_t sequence = nextSequence_++;
    pending_.push_back(Pending{sequence, nullptr});
    if (const auto* error = std::get_if<protocol::HelperError>(&*parsed)) {
        logger().debug("Connection {}: refused a request: {}", id_, error->description);
        answer(sequence, framedReply(*error));
    } else if (std::holds_alternative<protocol::VersionRequest>(std::get<protocol::Request>(*parsed))) {
        answer(sequence, framedReply(protocol::VersionReply{context_.version}));
    } else {
        const auto& name = std::get<protocol::FetchRequest>(std::get<protocol::Request>(*parsed)).deviceName;
        auto path = validatedDevicePath(name, context_.roots);
        if (!path) {
            logger().debug("Connection {}: refused \"{}\": {}", id_, sanitizedName(name), path.error().description);
            answer(sequence, framedReply(path.error()));
        } else {
            std::weak_ptr<ClientConnection> weak = weak_from_this();
            context_.runs.request(name, *path, RunCoalescer::Waiter{weak, [weak, sequence](const FramedReply& reply) {
                                                                        if (auto self = weak.lock())
                                                                            self->answer(sequence, reply);
                                                                    }});
        }
    }
    readHeader();
}

void ClientConnection::answer(std::uint64_t sequence, const FramedReply& reply) {
    if (isClosed_) return;
    const auto found = std::find_if(pending_.begin(), pending_.end(),
                                    [sequence](const Pending& pending) { return pending.sequence == sequence; });
    if (found == pending_.end()) return;
    found->reply = reply;
    writeNext();
}

void ClientConnection::writeNext() {
    if (writing_ || isClosed_ || pending_.empty() || !pending_.front().reply) return;
    writing_ = true;
    const FramedReply reply = pending_.front().reply;
    const std::uint64_t generation = ++writeGeneration_;
    writeTimer_.expires_after(context_.idleTimeout);
    writeTimer_.async_wait([self = shared_from_this(), generation](const asio::error_code& error) {
        if (error || self->isClosed_ || generation != self->writeGeneration_ || !self->writing_) return;
        logger().debug("Connection {}: a reply could not be written within {} ms; dropping the client", self->id_,
                       self->context_.idleTimeout.count());
        self->close();
    });
    asio::async_write(socket_, asio::buffer(*reply),
                      [self = shared_from_this(), reply](const asio::error_code& error, std::size_t) {
                          self->writing_ = false;
                          ++self->writeGeneration_;
                          if (self->isClosed_) return;
                          self->writeTimer_.cancel();
                          if (error) {
                              logger().debug("Connection {}: {}; closing it", self->id_, error.message());
                              self->close();
                              return;
                          }
                          self->pending_.pop_front();
                          if (self->pending_.empty()) {
                              if (self->peerDoneSending_) {
                                  self->close();
                                  return;
                              }
                              self->becameIdle();
                          }
                          if (!self->reading_) self->readHeader();
                          self->writeNext();
                      });
}

void ClientConnection::becameIdle() {
    idleSince_ = std::chrono::steady_clock::now();
    const std::uint64_t generation = ++idleGeneration_;
    idleTimer_.expires_after(context_.idleTimeout);
    idleTimer_.async_wait([self = shared_from_this(), generation](const asio::error_code& error) {
        if (error || self->isClosed_ || generation != self->idleGeneration_) return;
        logger().debug("Connection {}: no complete request within {} ms; dropping the client", self->id_,
                       self->context_.idleTimeout.count());
        self->close();
    });
}

}  // namespace vantorix::helper
