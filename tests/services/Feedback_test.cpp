#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/linux/CurlHttpClient.h"
#include "services/Feedback.h"
#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"
#include "support/ScopedEnvironment.h"

namespace vantorix::services {
namespace {

using testing::HttpTestServer;

constexpr const char* kProductId = "vx7k2m9q4r8t1w5y3z6b0c2d4";
const std::string kFamily = "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";  // one character
const std::string kAccented = "e\u0301";                                                   // one character
const std::string kFlag = "\U0001F1E8\U0001F1F3";                                          // one character

std::string repeated(const std::string& piece, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += piece;
    return text;
}

FeedbackForm validForm() {
    return FeedbackForm{FeedbackType::bug, "Graph freezes", "The graph stops after an hour of monitoring.", ""};
}

TEST(Feedback, CharactersAreWhatTheUserSees) {
    const std::pair<std::string, std::size_t> counts[] = {
        {"", 0}, {"abc", 3}, {kFamily, 1}, {kAccented + kAccented, 2}, {kFlag + kFlag, 2}, {"\r\n", 1}, {"标题", 2},
    };
    for (const auto& [text, count] : counts) EXPECT_EQ(characterCount(text), count) << text;
}

TEST(Feedback, InputLimitsCutWholeCharacters) {
    struct Case {
        std::string title, content;
        std::string expectedTitle, expectedContent;
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
    testing::ScopedLanguage english("en_US.UTF-8");
    const std::string title = "Title length must be 5–100", content = "Content length must be 20–2000",
                      email = "Invalid email format";
    struct Case {
        std::string title, content, email;
        std::optional<std::string> message;
    };
    const std::string body = std::string(20, 'x');
    const Case cases[] = {
        {"  abcd \n", body, "", title},
        {"abcde", body, "", std::nullopt},
        {repeated(kFamily, 4), body, "", title},
        {repeated(kFamily, 5), body, "", std::nullopt},
        {repeated(kAccented, 5), body, "", std::nullopt},
        {std::string(100, 't'), body, "", std::nullopt},
        {std::string(101, 't'), body, "", title},
        {"abcde", std::string(19, 'x') + "   ", "", content},
        {"abcde", std::string(2000, 'x'), "", std::nullopt},
        {"abcde", std::string(2001, 'x'), "", content},
        {"abc", "short", "bad", title},
        {"abcde", "short", "bad", content},
        {"abcde", body, "user@example", email},
        {"abcde", body, "user@example.c", email},
        {"abcde", body, "a b@example.com", email},
        {"abcde", body, "user@example.com\nother@example.com", email},
        {"abcde", body, "USER.NAME+TAG@EXAMPLE.COM", std::nullopt},
        {"abcde", body, " user@mail.example.org\n", std::nullopt},
        {"abcde", body, "   ", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(validationMessage(FeedbackForm{FeedbackType::other, c.title, c.content, c.email}), c.message)
            << c.title << " / " << c.content.size() << " / " << c.email;
    }
    testing::ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(validationMessage(FeedbackForm{FeedbackType::other, "abc", body, ""}), "标题长度需 5–100");
    EXPECT_EQ(validationMessage(FeedbackForm{FeedbackType::other, "abcde", "x", ""}), "内容长度需 20–2000");
    EXPECT_EQ(validationMessage(FeedbackForm{FeedbackType::other, "abcde", body, "x@y"}), "邮箱格式不正确");
}

TEST(Feedback, AnswersBecomeOneMessage) {
    struct Case {
        int status;
        std::string body;
        const char* language;
        std::string message;
        bool accepted;
    };
    const std::vector<Case> cases{
        {201, R"({"success":true,"id":"abc"})", "en_US.UTF-8", "Submitted successfully. Feedback ID: abc", true},
        {201, R"({"success":true,"id":"abc"})", "zh_CN.UTF-8", "提交成功，反馈ID：abc", true},
        {201, R"({"success":false,"id":"abc"})", "en_US.UTF-8", "Submitted, but failed to parse response", false},
        {201, R"({"success":true})", "en_US.UTF-8", "Submitted, but failed to parse response", false},
        {201, "created", "zh_CN.UTF-8", "提交成功，但响应解析失败", false},
        {400, "title: must not be blank", "en_US.UTF-8", "title: must not be blank", false},
        {400, "\xff\xfe bad", "en_US.UTF-8", "Submission failed: validation error", false},
        {400, "\xff", "zh_CN.UTF-8", "提交失败：参数校验失败", false},
        {200, R"({"success":true,"id":"abc"})", "en_US.UTF-8", "Submission failed: server error (200)", false},
        {404, "", "en_US.UTF-8", "Submission failed: server error (404)", false},
        {500, "", "zh_CN.UTF-8", "提交失败：服务器错误（500）", false},
    };
    CurlHttpClient client;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        testing::ScopedLanguage language(c.language);
        HttpTestServer server;
        server.post("/api/feedback", [&c](const httplib::Request&, httplib::Response& response) {
            response.status = c.status;
            response.set_content(c.body, "text/plain");
        });
        const auto outcome = submitFeedback(client, {server.url(""), kProductId, ""}, validForm());
        EXPECT_EQ(outcome.message, c.message);
        EXPECT_EQ(outcome.accepted, c.accepted);
        EXPECT_EQ(outcome.resetForm, c.accepted);
        EXPECT_EQ(outcome.feedbackId, c.accepted ? std::optional<std::string>("abc") : std::nullopt);
    }
}

TEST(Feedback, UnreachableServiceReportsTheServerError) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const std::string serverError = "Submission failed: server error (500)";
    CurlHttpClient client;
    testing::RefusingPort refusing;
    EXPECT_EQ(submitFeedback(client, {refusing.url(""), kProductId, ""}, validForm()).message, serverError);
    EXPECT_EQ(submitFeedback(client, {"", kProductId, ""}, validForm()).message, serverError);

    HttpTestServer silent;
    silent.post("/api/feedback", silent.neverAnswers());
    const auto timedOut =
        submitFeedback(client, {silent.url(""), kProductId, ""}, validForm(), std::chrono::milliseconds(300));
    EXPECT_EQ(timedOut.message, serverError);
    EXPECT_FALSE(timedOut.resetForm);
}

TEST(Feedback, RequestCarriesTheTrimmedFormAsJson) {
    HttpTestServer server;
    server.post("/api/feedback", [](const httplib::Request&, httplib::Response& response) {
        response.status = 201;
        response.set_content(R"({"success":true,"id":"abc"})", "application/json");
    });
    CurlHttpClient client;
    const ServiceConfiguration configuration{server.url("/"), kProductId, ""};
    EXPECT_TRUE(submitFeedback(client, configuration,
                               {FeedbackType::feature, "  Dark mode\n", "\tPlease add a dark chart theme.  ", " \n"})
                    .accepted);
    EXPECT_TRUE(submitFeedback(client, configuration,
                               {FeedbackType::bug, "Crash!", "It crashes when I unplug the disk.", " me@example.org "})
                    .accepted);
    EXPECT_FALSE(submitFeedback(client, configuration, {FeedbackType::bug, "x", "y", ""}).accepted);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u) << "an invalid form sends nothing";
    const nlohmann::json expected[] = {
        {{"feedbackType", "feature"}, {"title", "Dark mode"}, {"content", "Please add a dark chart theme."},
         {"relatedProductId", kProductId}},
        {{"feedbackType", "bug"}, {"title", "Crash!"}, {"content", "It crashes when I unplug the disk."},
         {"relatedProductId", kProductId}, {"contactEmail", "me@example.org"}},
    };
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].method, "POST");
        EXPECT_EQ(requests[i].path, "/api/feedback");
        EXPECT_EQ(requests[i].header("Content-Type"), "application/json");
        EXPECT_EQ(nlohmann::json::parse(requests[i].body), expected[i]);
    }
}

}  // namespace
}  // namespace vantorix::services
