#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "util/Result.h"

namespace vantorix::exporter {

// A small HTTP/1.1 server for scrapers, on one thread of its own. It answers GET and HEAD; each
// request's head must arrive whole, within a size limit and a time limit, or the connection is
// closed (with 431 for an oversized head, 400 for a malformed one). Connections are kept alive
// between requests, and beyond a limit new ones are closed at once, so slow or idle clients cannot
// hold more than a bounded share of memory.
class MetricsServer {
public:
    struct Options {
        std::string address = "127.0.0.1";
        std::uint16_t port = 9842;
        std::size_t maximumConnections = 512;
        std::size_t maximumHeadBytes = 8192;
        std::chrono::milliseconds requestTimeout{10000};  // a request's head, or an idle connection's next one
    };

    struct Request {
        std::string method;  // "GET" or "HEAD"
        std::string path;    // without the query
        std::string accept;
        std::string userAgent;
        std::string peer;  // the client's address, without the port
    };

    struct Response {
        int status = 200;
        std::string contentType;
        std::string body;
    };

    // Called on the server's thread for every well-formed GET or HEAD request.
    using Handler = std::function<Response(const Request&)>;

    // Binds and starts serving; the error is the reason the address could not be used.
    static Result<std::unique_ptr<MetricsServer>, std::string> start(Options options, Handler handler);
    ~MetricsServer();  // stops: closes every connection and joins the thread
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    std::uint16_t port() const;
    std::string address() const;  // what was bound, "127.0.0.1:9842" or "[::1]:9842"

    struct Impl;

private:
    explicit MetricsServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace vantorix::exporter
