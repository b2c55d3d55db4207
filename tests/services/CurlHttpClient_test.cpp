#include "platform/linux/CurlHttpClient.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>

#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"

namespace vantorix {
namespace {

using testing::HttpTestServer;
using testing::TemporaryFolder;
using Kind = HttpError::Kind;
namespace fs = std::filesystem;

constexpr std::size_t kCap = static_cast<std::size_t>(HttpClient::kMaximumBodyBytes);

// Bytes 0..250 repeated: not text, and a shift or a lost block shows.
std::string pattern(std::size_t size) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i % 251);
    return data;
}

// Serves `body` with a Content-Length, or chunked in blocks of 64 KiB.
void serve(HttpTestServer& server, const std::string& path, const std::string& body, bool chunked) {
    server.get(path, [=](const httplib::Request&, httplib::Response& response) {
        if (!chunked) return response.set_content(body, "application/octet-stream");
        response.set_chunked_content_provider("text/plain", [body](std::size_t at, httplib::DataSink& sink) {
            if (at < body.size()) return sink.write(&body[at], std::min<std::size_t>(64 * 1024, body.size() - at));
            sink.done();
            return true;
        });
    });
}

void redirect(HttpTestServer& server, const std::string& path, const std::string& target) {
    server.get(path, [=](const httplib::Request&, httplib::Response& response) {
        response.set_redirect(target);
        response.set_content("moved", "text/plain");  // a body that must not reach the caller
    });
}

HttpRequest getRequest(std::string url, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    HttpRequest request;
    request.url = std::move(url);
    request.timeout = timeout;
    return request;
}

TEST(CurlHttpClient, SendReturnsAnyStatusWithItsBodyOrAClassifiedFailure) {
    HttpTestServer server;
    testing::Gate gate;  // holds the silent answer until the test ends
    server.post("/echo", [](const httplib::Request& request, httplib::Response& response) {
        response.status = 400;
        response.set_content(request.get_header_value("Content-Type") + " " + request.body, "text/plain");
    });
    server.get("/silent", [&gate](const httplib::Request&, httplib::Response&) { gate.wait(); });
    redirect(server, "/to-file", "file:///etc/passwd");
    serve(server, "/cap-chunked", pattern(kCap), true);
    serve(server, "/over-declared", pattern(kCap + 1), false);
    serve(server, "/over-chunked", pattern(kCap + 1), true);
    CurlHttpClient client;

    HttpRequest post = getRequest(server.url("/echo"));
    post.method = HttpRequest::Method::post;
    post.headers = {{"Content-Type", "application/json"}};
    post.body = R"({"title":"中文内容"})";
    const auto posted = client.send(post);
    ASSERT_TRUE(posted.ok()) << posted.error().description;
    EXPECT_EQ(posted->status, 400);
    EXPECT_EQ(posted->body, "application/json " + post.body);
    const auto atCap = client.send(getRequest(server.url("/cap-chunked")));
    ASSERT_TRUE(atCap.ok()) << atCap.error().description;
    EXPECT_TRUE(atCap->body == pattern(kCap));

    const std::pair<std::string, Kind> failures[] = {
        {testing::refusingUrl(), Kind::connectionFailed}, {server.url("/silent"), Kind::timedOut},
        {server.url("/to-file"), Kind::invalidUrl},       {"ftp://127.0.0.1/", Kind::invalidUrl},
        {server.url("/over-declared"), Kind::tooLarge},   {server.url("/over-chunked"), Kind::tooLarge},
    };
    for (const auto& [url, kind] : failures) {
        const auto result = client.send(getRequest(url, std::chrono::milliseconds(500)));
        ASSERT_FALSE(result.ok()) << url;
        EXPECT_EQ(result.error().kind, kind) << url << ": " << result.error().description;
        EXPECT_FALSE(result.error().description.empty());
    }
}

TEST(CurlHttpClient, DownloadsArriveWholeAsReadableFilesOrLeaveNothingBehind) {
    HttpTestServer server;
    const std::string content = pattern(300 * 1024 + 7);
    server.get("/file", [&content](const httplib::Request&, httplib::Response& response) {
        response.set_header("Content-Disposition", R"(attachment; filename="Vantorix 2.0.deb")");
        response.set_content(content, "application/octet-stream");
    });
    redirect(server, "/go", "/file");
    server.get("/cut", [](const httplib::Request&, httplib::Response& response) {
        response.set_content_provider(1000, "text/plain", [](std::size_t, std::size_t, httplib::DataSink& sink) {
            sink.write("partial", 7);
            return false;  // the connection breaks off
        });
    });
    CurlHttpClient client;
    struct Case {
        std::string url;
        std::optional<Kind> failure;
        std::string subfolder;  // download into this (missing) folder inside the temporary one
    };
    const Case cases[] = {
        {server.url("/file"), std::nullopt, ""},
        {server.url("/go"), std::nullopt, ""},
        {server.url("/missing"), Kind::badStatus, ""},
        {server.url("/cut"), Kind::connectionFailed, ""},
        {testing::refusingUrl(), Kind::connectionFailed, ""},
        {server.url("/file"), Kind::fileError, "absent"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url + " " + c.subfolder);
        const TemporaryFolder directory;
        const auto result = client.download(c.url, (directory.path() / c.subfolder).string());
        if (c.failure) {
            ASSERT_FALSE(result.ok());
            EXPECT_EQ(result.error().kind, *c.failure) << result.error().description;
            EXPECT_TRUE(directory.names().empty());
            continue;
        }
        ASSERT_TRUE(result.ok()) << result.error().description;
        EXPECT_EQ(result->status, 200);
        EXPECT_EQ(result->suggestedFileName, "Vantorix 2.0.deb");
        EXPECT_EQ(result->finalUrl, server.url("/file"));
        EXPECT_EQ(directory.names(), std::set<std::string>{fs::path(result->temporaryPath).filename().string()});
        EXPECT_TRUE(testing::fileContents(result->temporaryPath) == content);
        struct stat status {};
        ASSERT_EQ(::stat(result->temporaryPath.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0644u);
    }
}

TEST(CurlHttpClient, ContentDispositionNamesAreReadAsSent) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"attachment; filename=plain.zip", "plain.zip"},
        {R"(attachment; filename="a;b.txt"; size=3)", "a;b.txt"},
        {R"(attachment; filename="fallback.deb"; filename*=UTF-8''%E5%AE%89%E8%A3%85%20v2.deb)", "安装 v2.deb"},
        {"attachment; filename*=iso-8859-1'en'caf%E9.txt", "café.txt"},
        {"attachment; filename*=UTF-8''bad%2; filename=fallback.txt", "fallback.txt"},
        {R"(attachment; filename="")", std::nullopt},
        {"inline", std::nullopt},
    };
    for (const auto& [value, name] : cases) EXPECT_EQ(fileNameFromContentDisposition(value), name) << value;
}

}  // namespace
}  // namespace vantorix
