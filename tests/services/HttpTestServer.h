#pragma once

// A real HTTP server on 127.0.0.1, on a port of its own from construction to destruction, for tests
// of code that talks to web services. Handlers run on the server's threads; they may be added at any
// time, also while requests are served.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace vantorix::testing {

// "http://127.0.0.1:PORT" followed by `path`, which begins with "/" (and may carry a query).
inline std::string loopbackUrl(int port, std::string_view path) {
    return "http://127.0.0.1:" + std::to_string(port) + std::string(path);
}

// A request as the server received it, recorded before its handler ran.
struct ReceivedRequest {
    std::string method;  // "GET", "POST"
    std::string path;    // without the query
    std::string body;
    httplib::Headers headers;  // names compare without regard to case

    // The first value of the header `name`, or "" when it was not sent.
    std::string header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

class HttpTestServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    // Binds 127.0.0.1 on a free port and serves until destruction. Throws when nothing can be bound.
    HttpTestServer() {
        server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            dispatch("GET", request, response);
        });
        server_.Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
            dispatch("POST", request, response);
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) throw std::runtime_error("HttpTestServer: cannot bind a port on 127.0.0.1");
        thread_ = std::thread([this] {
            server_.listen_after_bind();
            std::lock_guard lock(mutex_);
            listenEnded_ = true;
        });
        // stop() does nothing before the server runs, so the destructor must not come earlier.
        while (!server_.is_running()) {
            {
                std::lock_guard lock(mutex_);
                if (listenEnded_) break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // Releases handlers blocked in neverAnswers(), stops listening and waits for every handler
    // to return.
    ~HttpTestServer() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        server_.stop();
        thread_.join();
    }

    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    int port() const { return port_; }

    std::string url(std::string_view path) const { return loopbackUrl(port_, path); }

    // Answers GET (and HEAD) or POST requests for exactly `path` (no query). A later handler for the
    // same method and path replaces the earlier one. Paths without a handler are answered with 404.
    void get(const std::string& path, Handler handler) { route("GET", path, std::move(handler)); }
    void post(const std::string& path, Handler handler) { route("POST", path, std::move(handler)); }

    // A handler that never answers (it is released, with no content, when the server goes).
    Handler neverAnswers() {
        return [this](const httplib::Request&, httplib::Response&) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return stopping_; });
        };
    }

    // Every request received so far, oldest first.
    std::vector<ReceivedRequest> requests() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

    // Waits until at least `count` requests have arrived, for code that sends from a thread of its
    // own; false when `limit` passed first.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return received_.size() >= count; });
    }

private:
    void route(const std::string& method, const std::string& path, Handler handler) {
        std::lock_guard lock(mutex_);
        routes_[{method, path}] = std::move(handler);
    }

    void dispatch(const std::string& method, const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            received_.push_back({method, request.path, request.body, request.headers});
            const auto found = routes_.find({method, request.path});
            if (found != routes_.end()) handler = found->second;
        }
        changed_.notify_all();
        if (handler) {
            handler(request, response);
        } else {
            response.status = 404;
            response.set_content("not found", "text/plain");
        }
    }

    httplib::Server server_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    bool listenEnded_ = false;
    std::map<std::pair<std::string, std::string>, Handler> routes_;
    std::vector<ReceivedRequest> received_;
    std::thread thread_;
};

// A loopback port where nothing listens, held for the life of the object: the socket is bound (so
// no one else gets the port) but not listening, and every connection to it is refused.
class RefusingPort {
public:
    RefusingPort() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(0x7F000001u);  // 127.0.0.1
        socklen_t length = sizeof address;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            if (fd_ >= 0) ::close(fd_);
            throw std::runtime_error("RefusingPort: cannot bind a port on 127.0.0.1");
        }
        port_ = ntohs(address.sin_port);
    }
    ~RefusingPort() { ::close(fd_); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    std::string url(std::string_view path) const { return loopbackUrl(port_, path); }

private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace vantorix::testing
