#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "helper/DeviceNameValidator.h"
#include "helper/FramedReply.h"
#include "helper/RunCoalescer.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix::helper {

// What every connection shares: the runs, where device names are looked up, the version it
// reports and how long a client may stay silent or leave a reply unread.
struct ConnectionContext {
    RunCoalescer& runs;
    DeviceRoots roots;
    std::string version;
    std::chrono::milliseconds idleTimeout{5000};
};

// One client: frames in, replies out in request order. Requests may be pipelined; at most
// kMaximumRequestsInFlight are answered or being answered at once, and no further frame is read
// until their replies drain, so a connection holds one request frame being read (a few KiB at most)
// and a bounded number of replies. A frame over the request cap or a payload that is not a JSON
// object of bounded depth closes the connection. A complete frame must arrive within the idle
// timeout of the connection becoming idle (opened, or its last reply written), and a reply must be
// written within it, else the client is dropped.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
public:
    static constexpr std::size_t kMaximumRequestsInFlight = 16;

    ClientConnection(asio::local::stream_protocol::socket socket, ConnectionContext& context, std::uint64_t id,
                     std::function<void(std::uint64_t)> closed);
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    void start();
    // Closes the socket; replies still due are dropped. Idempotent.
    void close();

    // Nothing of a request has arrived that is not answered yet: no frame half read, no reply due.
    bool idle() const { return !isClosed_ && headerBytes_ == 0 && pending_.empty(); }
    // When it last became idle: opened, or its last reply written.
    std::chrono::steady_clock::time_point idleSince() const { return idleSince_; }

private:
    struct Pending {
        std::uint64_t sequence;
        FramedReply reply;  // null until answered
    };

    void readHeader();
    void readPayload();
    void peerStopped(const asio::error_code& error);
    void frameArrived();
    void answer(std::uint64_t sequence, const FramedReply& reply);
    void writeNext();
    void becameIdle();

    asio::local::stream_protocol::socket socket_;
    ConnectionContext& context_;
    std::uint64_t id_;
    std::function<void(std::uint64_t)> closed_;
    asio::steady_timer idleTimer_;
    asio::steady_timer writeTimer_;
    unsigned char header_[protocol::kFrameHeaderBytes] = {};
    std::size_t headerBytes_ = 0;  // of the frame being read; zero until it starts
    std::string payload_;
    std::chrono::steady_clock::time_point idleSince_;
    std::deque<Pending> pending_;
    std::uint64_t nextSequence_ = 0;
    // Bumped whenever a timer's reason lapses, so that an expiry already queued is ignored.
    std::uint64_t idleGeneration_ = 0;
    std::uint64_t writeGeneration_ = 0;
    bool reading_ = false;
    bool writing_ = false;
    bool peerDoneSending_ = false;
    bool isClosed_ = false;
};

}  // namespace vantorix::helper
