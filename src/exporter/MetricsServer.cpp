#include "exporter/MetricsServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <asio.hpp>
#include <cctype>
#include <string_view>
#include <thread>
#include <unordered_set>

#include "concurrency/ThreadAttributes.h"
#include "exporter/Exposition.h"
#include "text/Trim.h"

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
        return std::isalnum(static_cast<unsigned char>(c)) || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
    });
}

// A request head, parsed: what the handler needs and what decides the connection's fate.
struct Head {
    int error = 0;  // a status to answer with instead of calling the handler
    MetricsServer::Request request;
    bool keepAlive = true;
};

Head parseHead(std::string_view head) {
    Head parsed;
    const auto lineEnd = head.find("\r\n");
    const std::string_view requestLine = head.substr(0, lineEnd);
    const auto firstSpace = requestLine.find(' ');
    const auto lastSpace = requestLine.rfind(' ');
    if (firstSpace == std::string_view::npos || lastSpace == firstSpace) return {400, {}, false};
    const auto method = requestLine.substr(0, firstSpace);
    const auto target = requestLine.substr(firstSpace + 1, lastSpace - firstSpace - 1);
    const auto version = requestLine.substr(lastSpace + 1);
    if (!isToken(method) || target.empty() || target.find(' ') != std::string_view::npos || version.substr(0, 5) != "HTTP/") {
        return {400, {}, false};
    }
    if (version != "HTTP/1.1" && version != "HTTP/1.0") return {505, {}, false};
    parsed.keepAlive = version == "HTTP/1.1";
    parsed.request.method = std::string(method);
    parsed.request.path = std::string(target.substr(0, target.find('?')));

    std::string_view rest = lineEnd == std::string_view::npos ? std::string_view() : head.substr(lineEnd + 2);
    while (!rest.empty()) {
        const auto end = rest.find("\r\n");
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
        if (line.empty()) continue;
        const auto colon = line.find(':');
        if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) return {400, {}, false};
        const auto name = line.substr(0, colon);
        const auto value = text::trimmed(line.substr(colon + 1));
        if (equalsIgnoringCase(name, "accept")) {
            parsed.request.accept = std::string(value);
        } else if (equalsIgnoringCase(name, "user-agent")) {
            parsed.request.userAgent = std::string(value);
        } else if (equalsIgnoringCase(name, "connection")) {
            if (equalsIgnoringCase(value, "close")) parsed.keepAlive = false;
            if (equalsIgnoringCase(value, "keep-alive")) parsed.keepAlive = true;
        } else if (equalsIgnoringCase(name, "content-length")) {
            // Scrapes carry no body; one would have to be read before the next request.
            if (value != "0") return {413, {}, false};
        } else if (equalsIgnoringCase(name, "transfer-encoding")) {
            return {413, {}, false};
        }
    }
    if (parsed.request.method != "GET" && parsed.request.method != "HEAD") parsed.error = 405;
    return parsed;
}

}  // namespace

struct MetricsServer::Impl {
    class Connection;

    Impl(Options o, Handler h) : options(std::move(o)), handler(std::move(h)), acceptor(io) {}

    Options options;
    Handler handler;
    asio::io_context io;
    tcp::acceptor acceptor;
    std::unordered_set<std::shared_ptr<Connection>> connections;  // on the server's thread
    std::thread thread;
    tcp::endpoint bound;

    void accept();
    void closeAll();
};

class MetricsServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(Impl& server, tcp::socket socket) : server_(server), socket_(std::move(socket)), deadline_(server.io) {
        std::error_code ignored;
        const auto endpoint = socket_.remote_endpoint(ignored);
        peer_ = ignored ? std::string() : endpoint.address().to_string();
    }

    void start() { awaitRequest(); }

    void close() {
        std::error_code ignored;
        deadline_.cancel();
        socket_.shutdown(tcp::socket::shutdown_both, ignored);
        socket_.close(ignored);
    }

private:
    void awaitRequest() {
        deadline_.expires_after(server_.options.requestTimeout);
        deadline_.async_wait([self = shared_from_this()](const std::error_code& error) {
            if (!error) self->finish();
        });
        if (!parseBuffered()) read();
    }

    void read() {
        const std::size_t room = server_.options.maximumHeadBytes + 1 - buffer_.size();
        const std::size_t used = buffer_.size();
        buffer_.resize(used + room);
        socket_.async_read_some(asio::buffer(buffer_.data() + used, room),
                                [self = shared_from_this(), used](const std::error_code& error, std::size_t count) {
                                    self->buffer_.resize(used + (error ? 0 : count));
                                    if (error) {
                                        self->finish();
                                        return;
                                    }
                                    if (!self->parseBuffered()) self->read();
                                });
    }

    // Answers a complete head in the buffer; false when more bytes are needed.
    bool parseBuffered() {
        const std::string_view data(buffer_.data(), buffer_.size());
        const auto end = data.find("\r\n\r\n");
        if (end == std::string_view::npos) {
            if (buffer_.size() > server_.options.maximumHeadBytes) {
                respond({431, "text/plain; charset=utf-8", "Request head too large\n"}, false, false);
                return true;
            }
            return false;
        }
        Head head = parseHead(data.substr(0, end));
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(end + 4));
        head.request.peer = peer_;
        if (head.error != 0) {
            respond({head.error, "text/plain; charset=utf-8", fmt::format("{}\n", reason(head.error))}, false,
                    head.request.method == "HEAD");
            return true;
        }
        Response response;
        try {
            response = server_.handler(head.request);
        } catch (const std::exception&) {
            response = {500, "text/plain; charset=utf-8", "Internal Server Error\n"};
        }
        respond(std::move(response), head.keepAlive, head.request.method == "HEAD");
        return true;
    }

    void respond(Response response, bool keepAlive, bool headOnly) {
        out_ = fmt::format("HTTP/1.1 {} {}\r\nContent-Type: {}\r\nContent-Length: {}\r\n{}{}\r\n", response.status,
                           reason(response.status), response.contentType, response.body.size(),
                           response.status == 405 ? "Allow: GET, HEAD\r\n" : "",
                           keepAlive ? "" : "Connection: close\r\n");
        if (!headOnly) out_ += response.body;
        asio::async_write(socket_, asio::buffer(out_),
                          [self = shared_from_this(), keepAlive](const std::error_code& error, std::size_t) {
                              if (error || !keepAlive) {
                                  self->finish();
                                  return;
                              }
                              self->deadline_.cancel();
                              self->awaitRequest();
                          });
    }

    void finish() {
        close();
        server_.connections.erase(shared_from_this());
    }

    Impl& server_;
    tcp::socket socket_;
    asio::steady_timer deadline_;
    std::string peer_;
    std::vector<char> buffer_;
    std::string out_;
};

void MetricsServer::Impl::accept() {
    acceptor.async_accept([this](const std::error_code& error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor.is_open()) return;
        if (!error) {
            if (connections.size() >= options.maximumConnections) {
                std::error_code ignored;
                socket.close(ignored);
            } else {
                auto connection = std::make_shared<Connection>(*this, std::move(socket));
                connections.insert(connection);
                connection->start();
            }
        }
        accept();
    });
}

void MetricsServer::Impl::closeAll() {
    std::error_code ignored;
    acceptor.close(ignored);
    const auto open = connections;
    for (const auto& connection : open) connection->close();
    connections.clear();
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
    if (error) return Failure{fmt::format("{}: {}", endpoint.address().to_string() + ":" + std::to_string(endpoint.port()), error.message())};
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
