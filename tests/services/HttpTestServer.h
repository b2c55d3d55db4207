#pragma once

// A real HTTP server on 127.0.0.1, on a port of its own from construction to destruction, for tests
// of code that talks to web services. Handlers run on the server's threads; they may be added at any
// time, also while requests are served.

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

class HttpTestServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    // Binds 127.0.0.1 on a free port and serves until destruction. Throws when nothing can be bound.
    HttpTestServer() {
        server_.Get(".*", [this](const auto& request, auto& response) { dispatch(request, response); });
        server_.Post(".*", [this](const auto& request, auto& response) { dispatch(request, response); });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) throw std::runtime_error("HttpTestServer: cannot bind a port on 127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // stop() does nothing before the server runs, so the destructor must not come earlier; one
        // that cannot listen has ended its thread long before the 10 s are up.
        for (int waited = 0; !server_.is_running() && waited < 10'000; ++waited) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    // Stops listening and waits for every handler to return.
    ~HttpTestServer() {
        server_.stop();
        thread_.join();
    }
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    // "http://127.0.0.1:PORT" followed by `path`, which begins with "/" (and may carry a query).
    std::string url(std::string_view path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }

    // Answers GET (and HEAD) or POST requests for exactly `path` (no query). A later handler for the
    // same method and path replaces the earlier one. Paths without a handler are answered with 404.
    void get(const std::string& path, Handler handler) { route("GET", path, std::move(handler)); }
    void post(const std::string& path, Handler handler) { route("POST", path, std::move(handler)); }

    // Every request received so far, oldest first, as it was before its handler ran.
    std::vector<httplib::Request> requests() const {
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
    void dispatch(const httplib::Request& request, httplib::Response& response) {
        Handler handler;
        {
            std::lock_guard lock(mutex_);
            received_.push_back(request);
            const auto found = routes_.find({request.method == "HEAD" ? "GET" : request.method, request.path});
            if (found != routes_.end()) handler = found->second;
        }
        changed_.notify_all();
        if (handler) return handler(request, response);
        response.status = 404;
        response.set_content("not found", "text/plain");
    }

    httplib::Server server_;
    int port_ = 0;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::pair<std::string, std::string>, Handler> routes_;
    std::vector<httplib::Request> received_;
    std::thread thread_;
};

// A loopback URL where nothing listens: the port of a server that has gone.
inline std::string refusingUrl() { return HttpTestServer().url("/"); }

}  // namespace vantorix::testing
