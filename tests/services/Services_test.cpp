#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "concurrency/WaitFor.h"
#include "platform/linux/CurlHttpClient.h"
#include "services/Feedback.h"
#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"
#include "services/UpdateCheck.h"
#include "support/ManualMainExecutor.h"
#include "support/ScopedEnvironment.h"

namespace vantorix::services {
namespace {

namespace fs = std::filesystem;
using testing::HttpTestServer;
using testing::TemporaryFolder;
using Kind = HttpError::Kind;
using Status = UpdateCheckOutcome::Status;

constexpr const char* kProductId = "vx7k2m9q4r8t1w5y3z6b0c2d4";
constexpr const char* kProductPath = "/api/products/vx7k2m9q4r8t1w5y3z6b0c2d4";
constexpr const char* en = "en_US.UTF-8";
constexpr const char* zh = "zh_CN.UTF-8";
const std::string kFamily = "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";  // one character
const std::string kAccented = "e\u0301";                                                   // one character
const std::string kFlag = "\U0001F1E8\U0001F1F3";                                          // one character

// Answers every request with `answer` without a network and keeps what was sent.
struct ScriptedHttpClient : HttpClient {
    Result<HttpResponse, HttpError> answer = HttpResponse{200, ""};
    std::vector<HttpRequest> sent;
    Result<HttpResponse, HttpError> send(const HttpRequest& request) override {
        sent.push_back(request);
        return answer;
    }
    Result<HttpDownload, HttpError> download(const std::string&, const std::string&) override {
        return Failure{HttpError{}};
    }
};

std::string repeated(const std::string& piece, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += piece;
    return text;
}

TEST(Feedback, InputLimitsCutWholeCharacters) {
    struct Case {
        std::string title, content, expectedTitle, expectedContent;
    };
    const std::string content2500 = repeated("0123456789", 250);
    const Case cases[] = {
        {std::string(101, 't'), "short", std::string(100, 't'), "short"},
        {"title", content2500, "title", content2500.substr(0, 2000)},
        {repeated(kFamily, 101), repeated(kAccented, 2001), repeated(kFamily, 100), repeated(kAccented, 2000)},
        {repeated(kFlag, 100), std::string(2000, 'c'), repeated(kFlag, 100), std::string(2000, 'c')},
    };
    for (const auto& c : cases) {
        FeedbackForm form{FeedbackType::suggestion, c.title, c.content, ""};
        form.applyLimits();
        EXPECT_EQ(form.title, c.expectedTitle);
        EXPECT_EQ(form.content, c.expectedContent);
    }
}

TEST(Feedback, ValidationReportsTheFirstFailure) {
    testing::ScopedLanguage english(en);
    const std::string title = "Title length must be 5–100", content = "Content length must be 20–2000",
                      email = "Invalid email format", body = std::string(20, 'x');
    struct Case {
        std::string title, content, email;
        std::optional<std::string> message;
    };
    const Case cases[] = {
        {"  abcd \n", body, "", title},
        {repeated(kFamily, 4), body, "", title},
        {repeated(kFamily, 5), body, "", std::nullopt},
        {std::string(100, 't'), body, "", std::nullopt},
        {std::string(101, 't'), body, "", title},
        {"abcde", std::string(19, 'x') + "   ", "", content},
        {"abcde", std::string(2000, 'x'), "", std::nullopt},
        {"abcde", std::string(2001, 'x'), "", content},
        {"abc", "short", "bad", title},
        {"abcde", "short", "bad", content},
        {"abcde", body, "user@example.c", email},
        {"abcde", body, "user@example.com\nother@example.com", email},
        {"abcde", body, "USER.NAME+TAG@EXAMPLE.COM", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(validationMessage(FeedbackForm{FeedbackType::other, c.title, c.content, c.email}), c.message)
            << c.title << " / " << c.content.size() << " / " << c.email;
    }
}

// None of these is accepted; an accepted submission, in both languages, is the feedback window's test.
TEST(Feedback, AnswersBecomeOneMessage) {
    struct Case {
        Result<HttpResponse, HttpError> answer;
        const char* language;
        std::string message;
    };
    const Case cases[] = {
        {HttpResponse{201, "created"}, zh, "提交成功，但响应解析失败"},
        {HttpResponse{400, "title: must not be blank"}, en, "title: must not be blank"},
        {HttpResponse{400, "\xff\xfe bad"}, en, "Submission failed: validation error"},
        {HttpResponse{400, "\xff"}, zh, "提交失败：参数校验失败"},
        {HttpResponse{500, ""}, zh, "提交失败：服务器错误（500）"},
        {Failure{HttpError{HttpError::Kind::timedOut, "timed out"}}, en, "Submission failed: server error (500)"},
    };
    for (const auto& c : cases) {
        testing::ScopedLanguage language(c.language);
        const auto outcome = interpretFeedbackAnswer(c.answer);
        EXPECT_EQ(outcome.message, c.message);
        EXPECT_FALSE(outcome.accepted || outcome.resetForm || outcome.feedbackId) << c.message;
    }
}

TEST(Feedback, OnlyAValidFormIsSentAsTrimmedJson) {
    testing::ScopedLanguage english(en);
    ScriptedHttpClient client;
    client.answer = HttpResponse{201, R"({"success":true,"id":"abc"})"};
    const ServiceConfiguration configuration{"https://service.example/", kProductId, ""};
    const FeedbackForm feature{FeedbackType::feature, "  Dark mode\n", "\tPlease add a dark chart theme.  ", " \n"};
    EXPECT_TRUE(submitFeedback(client, configuration, feature).accepted);
    EXPECT_TRUE(submitFeedback(client, configuration,
                               {FeedbackType::bug, "Crash!", "It crashes when I unplug the disk.", " me@example.org "},
                               std::chrono::milliseconds(300))
                    .accepted);
    EXPECT_FALSE(submitFeedback(client, configuration, {FeedbackType::bug, "x", "y", ""}).accepted);
    EXPECT_EQ(submitFeedback(client, {"", kProductId, ""}, feature).message, "Submission failed: server error (500)");

    ASSERT_EQ(client.sent.size(), 2u) << "an invalid form or a missing service sends nothing";
    for (const auto& request : client.sent) {
        EXPECT_EQ(request.method, HttpRequest::Method::post);
        EXPECT_EQ(request.url, "https://service.example/api/feedback");
        EXPECT_EQ(request.headers, (decltype(HttpRequest::headers){{"Content-Type", "application/json"}}));
    }
    EXPECT_EQ(nlohmann::json::parse(client.sent[0].body), (nlohmann::json{{"feedbackType", "feature"},
                                                                          {"title", "Dark mode"},
                                                                          {"content", "Please add a dark chart theme."},
                                                                          {"relatedProductId", kProductId}}));
    EXPECT_EQ(nlohmann::json::parse(client.sent[1].body).value("contactEmail", ""), "me@example.org");
    EXPECT_EQ(client.sent[1].timeout, std::chrono::milliseconds(300));
}

TEST(UpdateCheck, VersionsComparePieceByPiece) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"1.10", "1.9", true},   {"1.2", "1.2.0", false},
        {"1.2.0", "1.2", false}, {"1.2b", "1.0", false},
        {"1.2b", "0.9", true},   {"2..1", "2.0.9", true},
        {"1.0.1", "1.0", true},  {"0.9", "1.0", false},
        {"+2", "1", true},       {"99999999999999999999", "1", false},
    };
    for (const auto& [offered, running, newer] : cases) EXPECT_EQ(isNewerVersion(offered, running), newer) << offered;
}

TEST(UpdateCheck, AnswersBecomeOnePromptOrOneMessage) {
    const std::string url = "https://downloads.example/Vantorix-2.0.tar.gz";
    const auto product = [](const std::string& version, const std::string& downloadUrl) {
        return HttpResponse{
            200, R"({"id":"p1","currentVersion":")" + version + R"(","downloadUrl":")" + downloadUrl + R"("})"};
    };
    using enum Status;
    struct Case {
        Result<HttpResponse, HttpError> answer;
        const char* language;
        Status status;
        std::string message;  // empty when version 2.0 at `url` is offered
    };
    const Case cases[] = {
        {product("2.0", url), en, updateAvailable, ""},
        {product(" 2.0\\n", "\\t" + url + " \\r\\n"), en, updateAvailable, ""},
        {product("1.0.0", url), zh, upToDate, "当前已是最新版本"},
        {HttpResponse{200, "<html>"}, en, failed, "Update check failed: the data is not valid JSON"},
        {HttpResponse{200, R"({"id":"p1","currentVersion":"2.0"})"}, en, failed,
         "Update check failed: invalid payload"},
        {product("2.0", "ftp://downloads.example/v.tar.gz"), zh, failed, "更新地址无效"},
        {HttpResponse{500, product("2.0", url).body}, zh, failed, "检查更新失败：网络错误"},
        {Failure{HttpError{HttpError::Kind::connectionFailed, "refused"}}, en, failed, "Update check failed: refused"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        testing::ScopedLanguage language(c.language);
        ScriptedHttpClient client;
        client.answer = c.answer;
        const auto outcome = checkForUpdate(client, {"https://service.example/", kProductId, ""}, "1.0");
        ASSERT_EQ(client.sent.size(), 1u);
        EXPECT_EQ(client.sent[0].url, std::string("https://service.example") + kProductPath);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_EQ(outcome.message.value_or(""), c.message);
        EXPECT_EQ(outcome.prompt.has_value(), c.message.empty());
        EXPECT_TRUE(!outcome.prompt || (outcome.prompt->version == "2.0" && outcome.prompt->url == url));
    }
}

TEST(UpdateCheck, SafeNamesFromUrlsAndSuggestions) {
    const std::string accented = repeated("é", 200);
    const std::tuple<std::optional<std::string>, std::string, std::string> cases[] = {
        {accented + ".deb", "https://h.example/", accented.substr(0, 250) + ".deb"},  // whole characters only
        {std::string(300, 'a') + ".deb", "https://h.example/", std::string(251, 'a') + ".deb"},
        {std::nullopt, "https://h.example/a/b/setup.deb?x=1#part", "setup.deb"},
        {"../../.bashrc", "https://h.example/", "bashrc"},
        {std::string("\x7f\x01\0\xff", 4) + "name.deb", "https://h.example/", "name.deb"},
        {"  .. ", "https://h.example/a/%2E%2E%2F.evil%20one.deb", "evil one.deb"},
        {"...", "https://h.example/", "vantorix-update"},
    };
    for (const auto& [suggested, url, expected] : cases) EXPECT_EQ(safeDownloadName(suggested, url), expected) << url;
}

TEST(UpdateCheck, CheckerGoneWhileItsCheckRunsCallsNothingBack) {
    testing::HttpTestServer server;
    testing::Gate gate;
    server.get(kProductPath, [&gate](const httplib::Request&, httplib::Response& response) {
        gate.wait();
        response.status = 500;
    });
    auto main = std::make_shared<ManualMainExecutor>();
    auto checker = UpdateChecker::create(
        {std::make_shared<CurlHttpClient>(), main, {server.url(""), kProductId, ""}, "1.0"});
    bool called = false;
    ASSERT_TRUE(checker->checkForUpdate([&called](const UpdateCheckOutcome&) { called = true; }));
    ASSERT_TRUE(server.waitForRequests(1, std::chrono::seconds(10)));
    checker.reset();
    gate.open();
    ASSERT_TRUE(testing::waitFor([&] { return main->pendingCount() > 0; }));
    main->drain();
    EXPECT_FALSE(called);
}

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
}  // namespace vantorix::services
