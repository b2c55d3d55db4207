#include "exporter/MetricsServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <asio.hpp>
#include <cctype>
#include <cstdint>
#include <string_view>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "concurrency/ThreadAttributes.h"
#include "exporter/Exposition.h"

namespace vantorix::exporter {
namespace {

using asio::ip::tcp;

std::string_view reason(int status) {
    switch (status) {
        case 200: return "OK";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 408: return "Request Timeout";
        case 413: return "Content Too Large";
        case 431: return "Request Header Fields Too Large";
        case 500: return "Internal Server Error";
        case 505: return "HTTP Version Not Supported";
        default: return "Unknown";
    }
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
    });
}

// Without the optional white space (spaces and tabs) around a field value or list element.
std::string_view withoutSpace(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Just past the empty line that ends a head at the start of `data`, or npos while more bytes are
// needed. Lines end with CRLF or with LF alone.
std::size_t headEnd(std::string_view data) {
    for (auto at = data.find('\n'); at != std::string_view::npos; at = data.find('\n', at + 1)) {
        if (at + 1 < data.size() && data[at + 1] == '\n') return at + 2;
        if (at + 2 < data.size() && data[at + 1] == '\r' && data[at + 2] == '\n') return at + 3;
    }
    return std::string_view::npos;
}

// A request head, parsed: what the handler needs and what decides the connection's fate.
struct Head {
    int error = 0;  // a status to answer with instead of calling the handler
    MetricsServer::Request request;
    bool keepAlive = false;
    bool confirmKeepAlive = false;  // an HTTP/1.0 request asked for it, so the answer says it is kept
};

Head parseHead(std::string_view head) {
    Head parsed;
    const auto fail = [](int status) { return Head{status, {}, false, false}; };
    bool requestLine = true;
    bool http10 = false;
    bool close = false;
    bool keepAlive = false;
    int hosts = 0;
    while (!head.empty()) {
        const auto end = head.find('\n');
        std::string_view line = head.substr(0, end);
        head = end == std::string_view::npos ? std::string_view() : head.substr(end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;  // the empty line that ends the head
        // A CR that does not end a line, or a NUL, has no place in a request line or field.
        if (line.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos) return fail(400);
        if (requestLine) {
            requestLine = false;
            const auto firstSpace = line.find(' ');
            const auto lastSpace = line.rfind(' ');
            if (firstSpace == std::string_view::npos || lastSpace == firstSpace) return fail(400);
            const auto method = line.substr(0, firstSpace);
            const auto target = line.substr(firstSpace + 1, lastSpace - firstSpace - 1);
            const auto version = line.substr(lastSpace + 1);
            const auto visible = [](char c) { return static_cast<unsigned char>(c) > ' ' && c != '\x7f'; };
            if (!isToken(method) || target.empty() || !std::all_of(target.begin(), target.end(), visible))
                return fail(400);
            // HTTP-version is "HTTP/" DIGIT "." DIGIT; a later 1.x is answered as 1.1 is.
            const auto digit = [](char c) { return c >= '0' && c <= '9'; };
            if (version.size() != 8 || version.substr(0, 5) != "HTTP/" || !digit(version[5]) || version[6] != '.' ||
                !digit(version[7])) {
                return fail(400);
            }
            if (version[5] != '1') return fail(505);
            http10 = version[7] == '0';
            parsed.request.method = std::string(method);
            parsed.request.path = std::string(target.substr(0, target.find('?')));
            continue;
        }
        const auto colon = line.find(':');
        // No white space before the colon, nor a line folded onto the previous field.
        if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) return fail(400);
        const auto name = line.substr(0, colon);
        const auto value = withoutSpace(line.substr(colon + 1));
        if (equalsIgnoringCase(name, "host")) {
            ++hosts;
        } else if (equalsIgnoringCase(name, "accept")) {
            parsed.request.accept = std::string(value);
        } else if (equalsIgnoringCase(name, "user-agent")) {
            parsed.request.userAgent = std::string(value);
        } else if (equalsIgnoringCase(name, "connection")) {
            for (std::string_view list = value; !list.empty();) {
                const auto comma = list.find(',');
                const auto option = withoutSpace(list.substr(0, comma));
                list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
                close = close || equalsIgnoringCase(option, "close");
                keepAlive = keepAlive || equalsIgnoringCase(option, "keep-alive");
            }
        } else if (equalsIgnoringCase(name, "content-length")) {
            // Scrapes carry no body; one would have to be read before the next request.
            if (value != "0") return fail(413);
        } else if (equalsIgnoringCase(name, "transfer-encoding")) {
            return fail(413);
        }
    }
    // Every HTTP/1.1 request names exactly one host; an HTTP/1.0 one may leave it out.
    if (hosts > 1 || (hosts == 0 && !http10)) return fail(400);
    parsed.keepAlive = !close && (!http10 || keepAlive);
    parsed.confirmKeepAlive = http10 && parsed.keepAlive;
    if (parsed.request.method != "GET" && parsed.request.method != "HEAD") parsed.error = 405;
    return parsed;
}

// The address a peer is counted under: IPv4 as it is, also when it arrives mapped into IPv6, and
// IPv6 by its /64, which one host commonly holds whole.
std::string addressKey(const asio::ip::address& address) {
    if (address.is_v4()) return address.to_string();
    const auto v6 = address.to_v6();
    if (v6.is_v4_mapped()) return asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_string();
    auto bytes = v6.to_bytes();
    std::fill(bytes.begin() + 8, bytes.end(), 0);
    return asio::ip::address_v6(bytes).to_string() + "/64";
}

}  // namespace

struct MetricsServer::Impl {
    class Connection;

    Impl(Options o, Handler h) : options(std::move(o)), handler(std::move(h)), acceptor(io), acceptPause(io) {}

    Options options;
    Handler handler;
    asio::io_context io;
    tcp::acceptor acceptor;
    asio::steady_timer acceptPause;
    // On the server's thread: the open connections, and how many each address holds.
    std::unordered_set<std::shared_ptr<Connection>> connections;
    std::unordered_map<std::string, std::size_t> perAddress;
    std::thread thread;
    tcp::endpoint bound;

    void accept();
    bool admit(const Connection& incoming);
    bool giveWay(const std::string* address);
    void forget(const std::shared_ptr<Connection>& connection);
    void closeAll();
};

class MetricsServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
public:
    // What the connection is doing; the order is the order in which connections give way.
    enum class Phase { closing, waiting, reading, answering };

    Connection(Impl& server, tcp::socket socket) : server_(server), socket_(std::move(socket)), deadline_(server.io) {}

    // False when the peer is already gone.
    bool identify() {
        std::error_code error;
        const auto remote = socket_.remote_endpoint(error);
        const auto local = error ? tcp::endpoint() : socket_.local_endpoint(error);
        if (error) return false;
        peer_ = remote.address().to_string();
        address_ = addressKey(remote.address());
        // A client on this machine connects from the address it connects to.
        onThisMachine_ = remote.address() == local.address();
        return true;
    }

    void start() { awaitRequest(); }

    void close() {
        std::error_code ignored;
        open_ = false;
        deadline_.cancel();
        socket_.shutdown(tcp::socket::shutdown_both, ignored);
        socket_.close(ignored);
    }

    void finish() {
        if (!open_) return;
        close();
        server_.forget(shared_from_this());
    }

    const std::string& address() const { return address_; }
    bool onThisMachine() const { return onThisMachine_; }
    Phase phase() const { return phase_; }
    std::chrono::steady_clock::time_point since() const { return since_; }

private:
    void enter(Phase phase) {
        phase_ = phase;
        since_ = std::chrono::steady_clock::now();
    }

    void expireIn(std::chrono::milliseconds limit) {
        deadline_.expires_after(limit);
        deadline_.async_wait([self = shared_from_this()](const std::error_code& error) {
            // A wait that completed just before the deadline was moved on does not count.
            if (!error && self->deadline_.expiry() <= std::chrono::steady_clock::now()) self->finish();
        });
    }

    void awaitRequest() {
        enter(Phase::waiting);
        expireIn(server_.options.requestTimeout);
        if (!parseBuffered()) read();
    }

    void read() {
        const std::size_t room = server_.options.maximumHeadBytes + 1 - buffer_.size();
        const std::size_t used = buffer_.size();
        buffer_.resize(used + room);
        socket_.async_read_some(asio::buffer(buffer_.data() + used, room),
                                [self = shared_from_this(), used](const std::error_code& error, std::size_t count) {
                                    self->buffer_.resize(used + (error ? 0 : count));
                                    if (error || !self->open_) {
                                        self->finish();
                                        return;
                                    }
                                    if (!self->parseBuffered()) self->read();
                                });
    }

    // Answers a complete head in the buffer; false when more bytes are needed.
    bool parseBuffered() {
        // Empty lines before a request line are passed over.
        std::string_view data(buffer_.data(), buffer_.size());
        std::size_t blank = 0;
        while (true) {
            if (data.substr(blank, 1) == "\n") {
                blank += 1;
            } else if (data.substr(blank, 2) == "\r\n") {
                blank += 2;
            } else {
                break;
            }
        }
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(blank));
        data = std::string_view(buffer_.data(), buffer_.size());
        const auto end = headEnd(data);
        if (end == std::string_view::npos) {
            if (buffer_.size() > server_.options.maximumHeadBytes) {
                respond({431, "text/plain; charset=utf-8", "Request head too large\n"}, false, false, false);
                return true;
            }
            if (!buffer_.empty() && phase_ == Phase::waiting) enter(Phase::reading);
            return false;
        }
        Head head = parseHead(data.substr(0, end));
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(end));
        head.request.peer = peer_;
        if (head.error != 0) {
            respond({head.error, "text/plain; charset=utf-8", fmt::format("{}\n", reason(head.error))}, false, false,
                    head.request.method == "HEAD");
            return true;
        }
        Response response;
        try {
            response = server_.handler(head.request);
        } catch (const std::exception&) {
            response = {500, "text/plain; charset=utf-8", "Internal Server Error\n"};
        }
        respond(std::move(response), head.keepAlive, head.confirmKeepAlive, head.request.method == "HEAD");
        return true;
    }

    void respond(Response response, bool keepAlive, bool confirmKeepAlive, bool headOnly) {
        enter(Phase::answering);
        out_ = fmt::format("HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\n{}{}\r\n", response.status,
                           reason(response.status), response.contentType, response.body.size(),
                           response.status == 405 ? "Allow: GET, HEAD\r\n" : "",
                           !keepAlive         ? "Connection: close\r\n"
                           : confirmKeepAlive ? "Connection: keep-alive\r\n"
                                              : "");
        if (!headOnly) out_ += response.body;
        asio::async_write(socket_, asio::buffer(out_),
                          [self = shared_from_this(), keepAlive](const std::error_code& error, std::size_t) {
                              std::string().swap(self->out_);  // a waiting connection holds no answer
                              if (error || !self->open_) {
                                  self->finish();
                              } else if (keepAlive) {
                                  self->awaitRequest();
                              } else {
                                  self->linger();
                              }
                          });
    }

    // Closes in stages after a last answer: the sending side first, then, once the client has
    // closed its side or a moment has passed, the whole connection. Closing at once while the
    // client's further bytes are unread would reset the connection, and the reset can destroy the
    // answer before the client has read it.
    void linger() {
        enter(Phase::closing);
        std::error_code ignored;
        socket_.shutdown(tcp::socket::shutdown_send, ignored);
        expireIn(std::chrono::milliseconds(2000));
        drain();
    }

    void drain() {
        buffer_.resize(4096);
        socket_.async_read_some(asio::buffer(buffer_),
                                [self = shared_from_this()](const std::error_code& error, std::size_t) {
                                    if (error || !self->open_) {
                                        self->finish();
                                    } else {
                                        self->drain();
                                    }
                                });
    }

    Impl& server_;
    tcp::socket socket_;
    asio::steady_timer deadline_;
    std::string peer_;
    std::string address_;
    bool onThisMachine_ = false;
    bool open_ = true;
    Phase phase_ = Phase::waiting;
    std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
    std::vector<char> buffer_;
    std::string out_;
};

void MetricsServer::Impl::accept() {
    acceptor.async_accept([this](const std::error_code& error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor.is_open()) return;
        if (error) {
            // Out of descriptors or memory, most likely: a pause lets closing connections free some.
            acceptPause.expires_after(std::chrono::milliseconds(100));
            acceptPause.async_wait([this](const std::error_code& e) {
                if (!e) accept();
            });
            return;
        }
        auto connection = std::make_shared<Connection>(*this, std::move(socket));
        if (connection->identify() && admit(*connection)) {
            connections.insert(connection);
            ++perAddress[connection->address()];
            connection->start();
        } else {
            connection->close();
        }
        accept();
    });
}

// Whether a new connection may be served, after making room for it if a limit is reached.
bool MetricsServer::Impl::admit(const Connection& incoming) {
    const auto held = perAddress.find(incoming.address());
    if (!incoming.onThisMachine() && held != perAddress.end() && held->second >= options.maximumConnectionsPerAddress &&
        !giveWay(&incoming.address())) {
        return false;
    }
    return connections.size() < options.maximumConnections || giveWay(nullptr);
}

// Closes the connection that can best spare its place, of the given address or of any: one closing
// after its last answer first, then one waiting for its next request, then one whose head is still
// arriving; among those, one of the address holding the most connections, and the one that has
// waited longest. A connection whose answer is being written keeps its place. False when every
// connection is writing an answer.
bool MetricsServer::Impl::giveWay(const std::string* address) {
    std::shared_ptr<Connection> chosen;
    std::tuple<Connection::Phase, std::size_t, std::chrono::steady_clock::time_point> best;
    for (const auto& connection : connections) {
        if (connection->phase() == Connection::Phase::answering || (address && connection->address() != *address))
            continue;
        const auto rank = std::tuple(connection->phase(), SIZE_MAX - perAddress.at(connection->address()),
                                     connection->since());
        if (!chosen || rank < best) {
            chosen = connection;
            best = rank;
        }
    }
    if (chosen) chosen->finish();
    return chosen != nullptr;
}

void MetricsServer::Impl::forget(const std::shared_ptr<Connection>& connection) {
    if (connections.erase(connection) == 0) return;
    const auto held = perAddress.find(connection->address());
    if (held != perAddress.end() && --held->second == 0) perAddress.erase(held);
}

void MetricsServer::Impl::closeAll() {
    std::error_code ignored;
    acceptor.close(ignored);
    acceptPause.cancel();
    const auto open = connections;
    for (const auto& connection : open) connection->close();
    connections.clear();
    perAddress.clear();
}

Result<std::unique_ptr<MetricsServer>, std::string> MetricsServer::start(Options options, Handler handler) {
    auto impl = std::make_unique<Impl>(std::move(options), std::move(handler));
    std::error_code error;
    const auto address = asio::ip::make_address(impl->options.address, error);
    if (error) return Failure{fmt::format("{}: {}", impl->options.address, error.message())};
    const tcp::endpoint endpoint(address, impl->options.port);
    impl->acceptor.open(endpoint.protocol(), error);
    if (!error) impl->acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) impl->acceptor.bind(endpoint, error);
    if (!error) impl->acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (!error) impl->bound = impl->acceptor.local_endpoint(error);
    if (error)
        return Failure{fmt::format("{}: {}", endpoint.address().to_string() + ":" + std::to_string(endpoint.port()),
                                   error.message())};
    impl->accept();
    Impl* raw = impl.get();
    impl->thread = std::thread([raw] {
        configureCurrentThread("com.vantorix.exporter.http", QualityOfService::utility);
        raw->io.run();
    });
    return std::unique_ptr<MetricsServer>(new MetricsServer(std::move(impl)));
}

MetricsServer::MetricsServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

MetricsServer::~MetricsServer() {
    asio::post(impl_->io, [impl = impl_.get()] {
        impl->closeAll();
        impl->io.stop();
    });
    if (impl_->thread.joinable()) impl_->thread.join();
}

std::uint16_t MetricsServer::port() const { return impl_->bound.port(); }

std::string MetricsServer::address() const {
    const auto address = impl_->bound.address();
    return address.is_v6() ? fmt::format("[{}]:{}", address.to_string(), impl_->bound.port())
                           : fmt::format("{}:{}", address.to_string(), impl_->bound.port());
}

}  // namespace vantorix::exporter
