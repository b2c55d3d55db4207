#include <gtest/gtest.h>

#include "support/ManualMainExecutor.h"
#include "concurrency/WaitFor.h"
#include "platform/linux/CurlHttpClient.h"
#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"
#include "services/UpdateCheck.h"
#include "support/ScopedEnvironment.h"

namespace vantorix::services {
namespace {

namespace fs = std::filesystem;
using testing::HttpTestServer;

constexpr const char* kProductId = "vx7k2m9q4r8t1w5y3z6b0c2d4";
constexpr const char* kProductPath = "/api/products/vx7k2m9q4r8t1w5y3z6b0c2d4";

ServiceConfiguration configurationFor(const std::string& baseUrl) { return {baseUrl, kProductId, ""}; }

std::string product(const std::string& version, const std::string& url) {
    return R"({"id":"p1","currentVersion":")" + version + R"(","downloadUrl":")" + url + R"("})";
}

void answer(HttpTestServer& server, const std::string& path, int status, const std::string& body) {
    server.get(path, [status, body](const httplib::Request&, httplib::Response& response) {
        response.status = status;
        response.set_content(body, "application/json");
    });
}

TEST(UpdateCheck, VersionsComparePieceByPiece) {
    struct Case {
        const char* offered;
        const char* running;
        bool newer;
    };
    const Case cases[] = {
        {"1.10", "1.9", true},  {"1.2", "1.2.0", false}, {"1.2.0", "1.2", false}, {"1.2b", "1.0", false},
        {"1.2b", "0.9", true},  {"2..1", "2.0.9", true},  {"1.0.1", "1.0", true},  {"0.9", "1.0", false},
        {"+2", "1", true},      {"99999999999999999999", "1", false},
    };
    for (const auto& c : cases) EXPECT_EQ(isNewerVersion(c.offered, c.running), c.newer) << c.offered << " vs " << c.running;
}

TEST(UpdateCheck, AnswersBecomeOnePromptOrOneMessage) {
    struct Case {
        const char* name;
        int status;
        std::string body;
        const char* running;
        const char* language;
        std::string message;         // expected message; empty when a prompt is expected
        std::string promptVersion;
        std::string promptUrl;
    };
    const std::string url = "https://downloads.example/Vantorix-2.0.tar.gz";
    const std::vector<Case> cases{
        {"newer", 200, product("2.0", url), "1.9.9", "en_US.UTF-8", "", "2.0", url},
        {"same with an extra zero", 200, product("1.0.0", url), "1.0", "en_US.UTF-8", "Already up to date", "", ""},
        {"same, Chinese", 200, product("1.0.0", url), "1.0", "zh_CN.UTF-8", "当前已是最新版本", "", ""},
        {"1.10 after 1.9", 200, product("1.10", url), "1.9", "en_US.UTF-8", "", "1.10", url},
        {"1.2b is 1.0", 200, product("1.2b", url), "1.0", "en_US.UTF-8", "Already up to date", "", ""},
        {"values trimmed", 200, product(" 2.0\\n", "\\t" + url + " \\r\\n"), "1.0", "en_US.UTF-8", "", "2.0", url},
        {"unknown and null members ignored", 200,
         R"({"id":"p1","type":null,"extra":[1,{"a":2}],"currentVersion":"1.0","downloadUrl":")" + url + R"("})", "1.0",
         "en_US.UTF-8", "Already up to date", "", ""},
        {"empty object", 200, "{}", "1.0", "en_US.UTF-8", "Update check failed: the required member “id” is missing", "", ""},
        {"no id", 200, R"({"currentVersion":"2.0","downloadUrl":")" + url + R"("})", "1.0", "en_US.UTF-8",
         "Update check failed: the required member “id” is missing", "", ""},
        {"wrong type", 200, R"({"id":"p1","currentVersion":2})", "1.0", "en_US.UTF-8",
         "Update check failed: the member “currentVersion” is not a string", "", ""},
        {"not JSON", 200, "<html>", "1.0", "en_US.UTF-8", "Update check failed: the data is not valid JSON", "", ""},
        {"version of a space", 200, product(" ", url), "1.0", "en_US.UTF-8", "Update check failed: invalid payload", "", ""},
        {"url of spaces", 200, product("2.0", "  \\n"), "1.0", "zh_CN.UTF-8", "检查更新失败：invalid payload", "", ""},
        {"no url", 200, R"({"id":"p1","currentVersion":"2.0"})", "1.0", "en_US.UTF-8",
         "Update check failed: invalid payload", "", ""},
        {"not a web url", 200, product("2.0", "ftp://downloads.example/v.tar.gz"), "1.0", "en_US.UTF-8",
         "Invalid update URL", "", ""},
        {"not a url", 200, product("2.0", "not a url"), "1.0", "zh_CN.UTF-8", "更新地址无效", "", ""},
        {"404", 404, "{}", "1.0", "en_US.UTF-8", "Update check failed: network error", "", ""},
        {"500", 500, product("2.0", url), "1.0", "en_US.UTF-8", "Update check failed: network error", "", ""},
        {"500, Chinese", 500, "", "1.0", "zh_CN.UTF-8", "检查更新失败：网络错误", "", ""},
    };
    CurlHttpClient client;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testing::ScopedLanguage language(c.language);
        HttpTestServer server;
        answer(server, kProductPath, c.status, c.body);
        const auto outcome = checkForUpdate(client, configurationFor(server.url("/")), c.running);
        if (c.message.empty()) {
            ASSERT_TRUE(outcome.prompt.has_value()) << outcome.message.value_or("");
            EXPECT_EQ(outcome.status, UpdateCheckOutcome::Status::updateAvailable);
            EXPECT_EQ(outcome.prompt->version, c.promptVersion);
            EXPECT_EQ(outcome.prompt->url, c.promptUrl);
            EXPECT_FALSE(outcome.message.has_value());
        } else {
            EXPECT_EQ(outcome.message.value_or("<none>"), c.message);
            EXPECT_FALSE(outcome.prompt.has_value());
            EXPECT_EQ(outcome.status == UpdateCheckOutcome::Status::upToDate,
                      c.message == "Already up to date" || c.message == "当前已是最新版本");
        }
        ASSERT_EQ(server.requests().size(), 1u);
        EXPECT_EQ(server.requests()[0].method, "GET");
        EXPECT_EQ(server.requests()[0].path, kProductPath);
    }
}

TEST(UpdateCheck, ServiceThatCannotBeReached) {
    CurlHttpClient client;
    // A build without a service is updated by the system's package manager; nothing is asked.
    for (const auto& [language, message] : {std::pair{"en_US.UTF-8", "This build is updated by your system's package manager."},
                                            std::pair{"zh_CN.UTF-8", "此版本通过系统的软件包管理器更新。"}}) {
        testing::ScopedLanguage scoped(language);
        const auto outcome = checkForUpdate(client, configurationFor(""), "1.0");
        EXPECT_EQ(outcome.status, UpdateCheckOutcome::Status::packageManaged);
        EXPECT_EQ(outcome.message, message);
    }

    testing::ScopedLanguage english("en_US.UTF-8");
    for (const std::string base : {"   ", "ftp://service.example", "service.example", "http://"}) {
        EXPECT_EQ(checkForUpdate(client, configurationFor(base), "1.0").message, "Invalid update URL") << base;
    }
    EXPECT_EQ(checkForUpdate(client, ServiceConfiguration{"https://service.example", "", ""}, "1.0").message,
              "Invalid update URL");

    testing::RefusingPort refusing;
    const auto refused = checkForUpdate(client, configurationFor(refusing.url("")), "1.0");
    const std::string prefix = "Update check failed: ";
    ASSERT_TRUE(refused.message.has_value());
    EXPECT_EQ(refused.message->substr(0, prefix.size()), prefix);
    EXPECT_GT(refused.message->size(), prefix.size() + 3) << "the client's description follows";
    EXPECT_EQ(refused.status, UpdateCheckOutcome::Status::failed);
}

TEST(UpdateCheck, DownloadsReplaceTheFileOfTheirSafeNameInTheFolder) {
    struct Case {
        const char* name;
        std::string path;                  // on the server
        std::optional<std::string> disposition;
        std::string expectedName;
    };
    const std::vector<Case> cases{
        {"URL's name", "/files/Vantorix-2.0.tar.gz", std::nullopt, "Vantorix-2.0.tar.gz"},
        {"suggested name", "/files/download", "attachment; filename=\"Vantorix 2.0.deb\"", "Vantorix 2.0.deb"},
        {"climbing out", "/files/x", "attachment; filename=\"../../.bashrc\"", "bashrc"},
        {"absolute", "/files/x", "attachment; filename=\"/etc/passwd\"", "passwd"},
        {"NUL inside", "/files/x", "attachment; filename*=UTF-8''a%00b", "ab"},
        {"dots only", "/files/pkg.bin", "attachment; filename=\"..\"", "pkg.bin"},
        {"empty", "/files/pkg.bin", "attachment; filename=\"\"", "pkg.bin"},
        {"nothing usable", "/", "attachment; filename=\"...\"", "vantorix-update"},
    };
    CurlHttpClient client;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HttpTestServer server;
        server.get(c.path, [&c](const httplib::Request&, httplib::Response& response) {
            if (c.disposition) response.set_header("Content-Disposition", *c.disposition);
            response.set_content("new contents", "application/octet-stream");
        });
        testing::TemporaryFolder folder;
        testing::writeFile(folder.path() / c.expectedName, "old contents");  // replaced
        const auto saved = downloadUpdate(client, server.url(c.path), folder.string());
        ASSERT_TRUE(saved.ok()) << saved.error();
        EXPECT_EQ(saved.value(), (folder.path() / c.expectedName).string());
        EXPECT_EQ(folder.names(), std::set<std::string>{c.expectedName});
        EXPECT_EQ(testing::fileContents(saved.value()), "new contents");
    }
}

TEST(UpdateCheck, FailedDownloadsLeaveTheFolderAsItWas) {
    testing::ScopedLanguage english("en_US.UTF-8");
    HttpTestServer server;
    answer(server, "/files/missing.tar.gz", 404, "no");
    server.get("/files/cut.tar.gz", [](const httplib::Request&, httplib::Response& response) {
        response.set_content_provider(1000, "application/octet-stream",
                                      [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                          sink.write("partial", 7);
                                          return false;  // the connection breaks off
                                      });
    });
    answer(server, "/files/taken", 200, "new contents");
    CurlHttpClient client;
    for (const char* path : {"/files/missing.tar.gz", "/files/cut.tar.gz", "/files/taken"}) {
        SCOPED_TRACE(path);
        testing::TemporaryFolder folder;
        fs::create_directory(folder.path() / "taken");  // a folder where the file would go
        const auto saved = downloadUpdate(client, server.url(path), folder.string());
        ASSERT_FALSE(saved.ok());
        EXPECT_EQ(saved.error().rfind("Download failed: ", 0), 0u) << saved.error();
        EXPECT_EQ(folder.names(), std::set<std::string>{"taken"});
    }
}

TEST(UpdateCheck, SafeNamesFromUrlsAndSuggestions) {
    std::string accented;
    for (int i = 0; i < 200; ++i) accented += "é";
    const std::tuple<std::optional<std::string>, std::string, std::string> cases[] = {
        {accented + ".deb", "https://h.example/", accented.substr(0, 250) + ".deb"},  // whole characters only
        {std::nullopt, "https://h.example/a/b/setup.deb?x=1#part", "setup.deb"},
        {"dir\\evil.deb", "https://h.example/", "evil.deb"},
        {std::string("\x7f\x01\xff") + "name.deb", "https://h.example/", "name.deb"},
        {"  .. ", "https://h.example/a/%2E%2E%2F.evil%20one.deb", "evil one.deb"},
        {std::string(300, 'a') + ".deb", "https://h.example/", std::string(251, 'a') + ".deb"},
    };
    for (const auto& [suggested, url, expected] : cases) EXPECT_EQ(safeDownloadName(suggested, url), expected) << url;
}

TEST(UpdateCheck, CheckerRunsOneCheckAtATimeAndOutlivesNothing) {
    testing::ScopedLanguage english("en_US.UTF-8");
    HttpTestServer server;
    testing::Gate gate;
    server.get(kProductPath, [&gate](const httplib::Request&, httplib::Response& response) {
        gate.wait();
        response.set_content(product("9.0", "https://downloads.example/v.tar.gz"), "application/json");
    });
    auto main = std::make_shared<ManualMainExecutor>();
    auto checker = UpdateChecker::create({std::make_shared<CurlHttpClient>(), main,
                                          configurationFor(server.url("")), "1.0"});

    std::vector<UpdateCheckOutcome> outcomes;
    const auto record = [&outcomes](const UpdateCheckOutcome& outcome) { outcomes.push_back(outcome); };
    ASSERT_TRUE(checker->checkForUpdate(record));
    EXPECT_TRUE(checker->isCheckingUpdate());
    ASSERT_TRUE(server.waitForRequests(1, std::chrono::seconds(10)));
    EXPECT_FALSE(checker->checkForUpdate(record)) << "a second press while the check runs";
    gate.open();
    ASSERT_TRUE(main->runUntil([&] { return !outcomes.empty(); }, std::chrono::seconds(10)));
    EXPECT_FALSE(checker->isCheckingUpdate());
    ASSERT_TRUE(outcomes[0].prompt.has_value());
    EXPECT_EQ(outcomes[0].prompt->version, "9.0");
    EXPECT_EQ(server.requests().size(), 1u);

    // Gone while its check runs: the check ends on its own, nothing is called back.
    HttpTestServer slow;
    testing::Gate slowGate;
    slow.get(kProductPath, [&slowGate](const httplib::Request&, httplib::Response& response) {
        slowGate.wait();
        response.status = 500;
    });
    auto orphan = UpdateChecker::create({std::make_shared<CurlHttpClient>(), main, configurationFor(slow.url("")), "1.0"});
    bool called = false;
    ASSERT_TRUE(orphan->checkForUpdate([&called](const UpdateCheckOutcome&) { called = true; }));
    ASSERT_TRUE(slow.waitForRequests(1, std::chrono::seconds(10)));
    orphan.reset();
    slowGate.open();
    ASSERT_TRUE(testing::waitFor([&] { return main->pendingCount() > 0; }));
    main->drain();
    EXPECT_FALSE(called);
}

}  // namespace
}  // namespace vantorix::services
