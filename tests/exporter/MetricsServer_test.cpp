#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <thread>

#include "exporter/MetricsServer.h"

namespace vantorix::exporter {
namespace {

using namespace std::chrono_literals;
using ::testing::StartsWith;

// A client on a raw socket, from a chosen loopback address, so that any bytes can be sent and
// every outcome seen.
class Client {
public:
    Client(std::uint16_t port, const char* from) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int window = 4096;  // so that a large answer is still on its way when the server is done writing it
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        ::inet_pton(AF_INET, from, &address.sin_addr);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
        address.sin_port = htons(port);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { ::close(fd_); }

    bool send(const std::string& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // The next answer, head and body; nothing when the connection ends before it is whole.
    std::string answer(bool headOnly = false) {
        while (true) {
            if (const auto head = pending_.find("\r\n\r\n"); head != std::string::npos) {
                const auto length = pending_.find("Content-Length: ");
                const auto size = head + 4 + (headOnly || length > head ? 0 : std::stoul(pending_.substr(length + 16)));
                if (pending_.size() >= size) {
                    const auto text = pending_.substr(0, size);
                    pending_.erase(0, size);
                    return text;
                }
            }
            if (!receive()) {
                pending_.clear();
                return {};
            }
        }
    }
    // Everything until the server closes the connection; nothing when it is still open after 10 s.
    std::optional<std::string> rest() {
        while (receive()) {
        }
        return timedOut_ ? std::nullopt : std::optional(std::exchange(pending_, {}));
    }
    std::string scrape() {
        send("GET /metrics HTTP/1.1\r\nHost: t\r\n\r\n");
        return answer();
    }

private:
    bool receive() {
        pollfd ready{fd_, POLLIN, 0};
        timedOut_ = ::poll(&ready, 1, 10000) != 1;
        char buffer[4096];
        const auto n = timedOut_ ? -1 : ::recv(fd_, buffer, sizeof buffer, 0);
        if (n > 0) pending_.append(buffer, static_cast<std::size_t>(n));
        return n > 0;
    }

    int fd_;
    std::string pending_;
    bool timedOut_ = false;
};

class MetricsServerTest : public ::testing::Test {
protected:
    void start(std::chrono::milliseconds requestTimeout) {
        MetricsServer::Options options;
        options.port = 0;
        options.maximumConnections = 8;
        options.maximumConnectionsPerAddress = 3;
        options.maximumHeadBytes = 1024;
        options.requestTimeout = requestTimeout;
        auto started = MetricsServer::start(options, [](const MetricsServer::Request& request) {
            if (request.path == "/large") return MetricsServer::Response{200, "text/plain", std::string(1 << 20, 'x')};
            if (request.path != "/metrics") return MetricsServer::Response{404, "text/plain", "no\n"};
            return MetricsServer::Response{200, "text/plain",
                                           request.peer + "|" + request.userAgent + "|" + request.accept};
        });
        ASSERT_TRUE(started) << started.error();
        server_ = std::move(started).value();
    }
    std::unique_ptr<Client> connect(const char* from = "127.0.0.1") {
        return std::make_unique<Client>(server_->port(), from);
    }

    std::unique_ptr<MetricsServer> server_;
};

TEST_F(MetricsServerTest, AnswersEachRequestWithItsStatusAndKeepsOrClosesTheConnectionAsAsked) {
    start(60s);  // longer than any wait here, so a connection that ends was closed on purpose
    struct Case {
        std::string request;
        std::vector<std::string> answers;  // the start of each answer, in order
        bool kept;
    };
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 11\r\n";
    const std::vector<Case> cases{
        {"GET /metrics?x=1 HTTP/1.1\r\nHost: t\r\nUser-Agent: t/1\r\nAccept: a/b\r\nConnection: close\r\n\r\n",
         {"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 17\r\nConnection: close\r\n\r\n127.0.0.1|t/1|a/b"},
         false},
        {"GET /metrics HTTP/1.1\r\nHost: t\r\n\r\n", {ok + "\r\n127.0.0.1||"}, true},
        {"HEAD /metrics HTTP/1.0\r\n\r\n", {ok + "Connection: close\r\n\r\n"}, false},
        {"GET /metrics HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n",
         {ok + "Connection: keep-alive\r\n\r\n127.0.0.1||"},
         true},
        {"GET /metrics HTTP/1.1\r\nHost: t\r\nConnection: keep-alive, close\r\n\r\n", {"HTTP/1.1 200 "}, false},
        // LF alone, empty lines before the request line, a later 1.x, pipelining.
        {"GET /metrics HTTP/1.1\nHost: t\nUser-Agent: lf\n\n", {"HTTP/1.1 200 "}, true},
        {"\r\n\nGET /metrics HTTP/1.9\r\nHost: t\n\r\n", {"HTTP/1.1 200 "}, true},
        {"GET /metrics HTTP/1.1\r\nHost: t\r\n\r\nGET /nothing HTTP/1.1\nHost: t\n\n",
         {"HTTP/1.1 200 ", "HTTP/1.1 404 Not Found\r\n"},
         true},
        {"DELETE /metrics HTTP/1.1\r\nHost: t\r\n\r\n", {"HTTP/1.1 405 Method Not Allowed\r\n"}, false},
        {"GET /metrics HTTP/1.1\r\nHost: t\r\nContent-Length: 5\r\n\r\nhello", {"HTTP/1.1 413 "}, false},
        {"GET /metrics HTTP/2.0\r\nHost: t\r\n\r\n", {"HTTP/1.1 505 "}, false},
        // The last answer arrives whole though more requests follow it unread.
        {"GET /large HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n" + std::string(4000, 'x'),
         {"HTTP/1.1 200 "},
         false},
        {"hello\r\n\r\nGET /metrics HTTP/1.1\r\nHost: t\r\n\r\n", {"HTTP/1.1 400 Bad Request\r\n"}, false},
        // Malformed heads.
        {"GET /metrics HTTP/1.1\r\n\r\n", {"HTTP/1.1 400 "}, false},
        {"GET /metrics HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", {"HTTP/1.1 400 "}, false},
        {"GET /metrics HTTP/1.1\r\nHost : t\r\n\r\n", {"HTTP/1.1 400 "}, false},
        {"GET /metrics HTTP/1.1\r\nHost: t\r\nX: a\rb\r\n\r\n", {"HTTP/1.1 400 "}, false},
        {"GET /metrics HTTP/1.1\r\nX: " + std::string(2000, 'x') + "\r\n\r\n",
         {"HTTP/1.1 431 Request Header Fields Too Large\r\n"},
         false},
    };
    for (const auto& [request, answers, kept] : cases) {
        auto client = connect();
        client->send(request);
        for (const auto& answer : answers)
            EXPECT_THAT(client->answer(request.starts_with("HEAD")), StartsWith(answer)) << request;
        if (kept) {
            EXPECT_THAT(client->scrape(), StartsWith("HTTP/1.1 200 OK")) << request;
        } else {
            EXPECT_EQ(client->rest(), "") << request;
        }
    }
}

TEST_F(MetricsServerTest, IdleConnectionsGiveWaySoNoPeerLocksOthersOut) {
    start(60s);
    // Another address may hold three; its fourth connection replaces its longest-idle one.
    std::vector<std::unique_ptr<Client>> held;
    for (int i = 0; i < 4; ++i) {
        held.push_back(connect("127.0.0.2"));
        EXPECT_THAT(held.back()->scrape(), StartsWith("HTTP/1.1 200 OK"));
    }
    EXPECT_EQ(held[0]->rest(), "");
    // This machine fills the server with idle keep-alive connections, and is still let in: its
    // own longest-idle connection gives way, as the address holding the most.
    for (int i = 0; i < 5; ++i) {
        held.push_back(connect());
        EXPECT_THAT(held.back()->scrape(), StartsWith("HTTP/1.1 200 OK"));
    }
    auto newcomer = connect();
    EXPECT_THAT(newcomer->scrape(), StartsWith("HTTP/1.1 200 OK"));
    EXPECT_EQ(held[4]->rest(), "");
    for (const std::size_t kept : {1u, 2u, 3u, 5u, 8u})
        EXPECT_THAT(held[kept]->scrape(), StartsWith("HTTP/1.1 200 OK")) << kept;
}

TEST_F(MetricsServerTest, ClosesHeadsThatDoNotArriveInTimeAndIdleConnections) {
    start(300ms);
    // A byte every 100 ms does not keep a head open: sending fails soon after the server closed.
    auto slow = connect();
    int sent = 0;
    while (sent < 100 && slow->send("G")) {
        ++sent;
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_LT(sent, 100) << "a head that grows by a byte every 100 ms stayed open for 10 s";
    auto idle = connect();
    EXPECT_THAT(idle->scrape(), StartsWith("HTTP/1.1 200 OK"));
    EXPECT_EQ(idle->rest(), "");
}

}  // namespace
}  // namespace vantorix::exporter
