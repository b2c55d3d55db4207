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
// closed (with 431 for an oversized head, 400 for a malformed one). Lines may end with CRLF or LF
// alone. HTTP/1.1 connections are kept alive unless the request says `Connection: close`; HTTP/1.0
// ones only when the request asks for `keep-alive`, which the answer then confirms.
//
// Connections are bounded in total and per remote address, so slow or idle clients cannot hold more
// than a bounded share of memory. A connection that is not reading or answering a request gives way
// to a new one when a limit is reached, so nobody can keep others out by merely holding connections.
class MetricsServer {
public:
    struct Options {
        std::string address = "127.0.0.1";
        std::uint16_t port = 9842;
        // A connection costs about 10 KiB here (head buffer, answer, socket state) and one file
        // descriptor, so 512 stay within a few MiB and well within the usual limit of 1024
        // descriptors, while being far more than the scrapers of a fleet keep open.
        std::size_t maximumConnections = 512;
        // What one remote address may hold; IPv6 peers are counted by their /64, which one host
        // commonly owns whole. A Prometheus server keeps one connection per scrape job, and a few
        // dozen clients behind one NAT address still fit, while eight addresses are needed to fill
        // the server. Clients on this machine all connect from the address they connect to, so for
        // them only the total applies: there, connections giving way is what keeps everyone in.
        std::size_t maximumConnectionsPerAddress = 64;
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
