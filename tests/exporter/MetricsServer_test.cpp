#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <asio.hpp>
#include <atomic>

#include "exporter/MetricsServer.h"

namespace vantorix::exporter {
namespace {

using asio::ip::tcp;
using namespace std::chrono_literals;

class MetricsServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        MetricsServer::Options options;
        options.port = 0;
        options.maximumConnections = 8;
        options.maximumHeadBytes = 1024;
        options.requestTimeout = 300ms;
        auto started = MetricsServer::start(options, [this](const MetricsServer::Request& request) {
            ++handled_;
            if (request.path != "/metrics") return MetricsServer::Response{404, "text/plain", "no\n"};
            return MetricsServer::Response{200, "text/plain", request.peer + "|" + request.userAgent + "|" + request.accept};
        });
        ASSERT_TRUE(started) << started.error();
        server_ = std::move(started).value();
    }

    tcp::socket connect() {
        tcp::socket socket(io_);
        socket.connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), server_->port()));
        return socket;
    }
    // Everything the server sends until it closes the connection.
    static std::string readAll(tcp::socket& socket) {
        std::string text;
        std::error_code error;
        char buffer[4096];
        while (!error) {
            const auto n = socket.read_some(asio::buffer(buffer), error);
            text.append(buffer, n);
        }
        return text;
    }
    std::string exchange(const std::string& request) {
        auto socket = connect();
        asio::write(socket, asio::buffer(request));
        return readAll(socket);
    }

    asio::io_context io_;
    std::atomic<int> handled_{0};
    std::unique_ptr<MetricsServer> server_;
};

TEST_F(MetricsServerTest, AnswersEachKindOfRequestWithItsStatus) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"GET /metrics?x=1 HTTP/1.1\r\nUser-Agent: t/1\r\nAccept: a/b\r\nConnection: close\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 17\r\nConnection: close\r\n\r\n127.0.0.1|t/1|a/b"},
        {"HEAD /metrics HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 11\r\nConnection: close\r\n\r\n"},
        {"GET /nothing HTTP/1.0\r\n\r\n", "HTTP/1.1 404 Not Found\r\n"},
        {"DELETE /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed\r\n"},
        {"GET /metrics HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", "HTTP/1.1 413 "},
        {"GET /metrics HTTP/2.0\r\n\r\n", "HTTP/1.1 505 "},
        {"hello\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n"},
        {"GET /metrics HTTP/1.1\r\nno colon here\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n"},
        {"GET /metrics HTTP/1.1\r\nX: " + std::string(2000, 'x') + "\r\n\r\n", "HTTP/1.1 431 Request Header Fields Too Large\r\n"},
        {std::string("\0\xff\r\n\r\n", 6), "HTTP/1.1 400 Bad Request\r\n"},
    };
    for (const auto& [request, answer] : cases) EXPECT_EQ(exchange(request).substr(0, answer.size()), answer) << request;
    EXPECT_EQ(handled_, 3);
}

TEST_F(MetricsServerTest, KeepsConnectionsAliveAndClosesSlowIdleAndSurplusOnes) {
    // Two pipelined requests on one connection, then an idle one that the time limit closes.
    auto kept = connect();
    asio::write(kept, asio::buffer(std::string("GET /metrics HTTP/1.1\r\n\r\nGET /metrics HTTP/1.1\r\n\r\n")));
    const std::string both = readAll(kept);  // ends when the idle connection is closed
    std::size_t answers = 0;
    for (auto at = both.find("HTTP/1.1 200 OK"); at != std::string::npos; at = both.find("HTTP/1.1 200 OK", at + 1)) ++answers;
    EXPECT_EQ(answers, 2u) << both;

    // A client that never finishes its head is cut off; one byte at a time does not keep it open.
    auto slow = connect();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) {
        std::error_code error;
        asio::write(slow, asio::buffer("G", 1), error);
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_EQ(readAll(slow), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);

    // Beyond the connection limit a new connection is closed at once, and the others still work.
    std::vector<tcp::socket> idle;
    for (int i = 0; i < 8; ++i) idle.push_back(connect());
    std::this_thread::sleep_for(50ms);
    auto surplus = connect();
    EXPECT_EQ(readAll(surplus), "");
    idle.clear();
    std::this_thread::sleep_for(400ms);  // the server notices the closed ones
    EXPECT_THAT(exchange("GET /metrics HTTP/1.0\r\n\r\n"), ::testing::StartsWith("HTTP/1.1 200 OK"));
}

}  // namespace
}  // namespace vantorix::exporter
