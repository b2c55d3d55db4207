#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"
#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using testing::HttpTestServer;

constexpr const char* kProductPath = "/api/products/vx7k2m9q4r8t1w5y3z6b0c2d4";

// The web-service commands against a loopback server, in English, with a home of their own.
class ServicesCli : public ::testing::Test {
protected:
    // `withService` false: the service the build names, which is none in a stock build.
    testing::ProcessResult run(const std::vector<std::string>& args, const std::string& language = "en_US",
                               bool withService = true) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        const auto service = withService ? std::optional(server_.url("")) : std::nullopt;
        return testing::runProcess(argv, {{"LANGUAGE", language}, {"LC_ALL", std::nullopt}, {"LANG", "C.UTF-8"},
                                          {"HOME", home_.string()}, {"XDG_CONFIG_HOME", std::nullopt},
                                          {"XDG_DOWNLOAD_DIR", std::nullopt}, {"VANTORIX_SERVICE_URL", service},
                                          {"VANTORIX_PRODUCT_ID", std::nullopt}});
    }

    void offer(const std::string& version) {
        const std::string body = R"({"id":"p1","currentVersion":")" + version + R"(","downloadUrl":")" +
                                 server_.url("/files/Vantorix-" + version + ".tar.gz") + R"("})";
        server_.get(kProductPath, [body](const httplib::Request&, httplib::Response& response) {
            response.set_content(body, "application/json");
        });
        server_.get("/files/Vantorix-" + version + ".tar.gz", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("package", "application/gzip");
        });
    }

    HttpTestServer server_;
    testing::TemporaryFolder home_;
};

// What check-update finds, in the user's language; it downloads only when asked, into the
// Downloads folder; a stock build, which names no service, leaves updates to the package manager.
TEST_F(ServicesCli, CheckUpdateSaysWhatItFoundAndDownloadsOnlyWhenAsked) {
    offer("0.0");
    EXPECT_EQ(run({"check-update"}).out, "Already up to date\n");
    EXPECT_EQ(run({"check-update"}, "zh_CN").out, "当前已是最新版本\n");

    offer("999.0");
    const auto document = nlohmann::json::parse(run({"check-update", "--json"}).out);
    EXPECT_EQ(document["status"], "updateAvailable");
    EXPECT_EQ(document["version"], "999.0");
    const fs::path downloads = home_.path() / "Downloads";
    EXPECT_FALSE(fs::exists(downloads));
    fs::create_directory(downloads);
    testing::writeFile(downloads / "Vantorix-999.0.tar.gz", "an older copy");
    const auto saved = run({"check-update", "--download"});
    ASSERT_EQ(saved.exitStatus, 0) << saved.err;
    const std::string path = (downloads / "Vantorix-999.0.tar.gz").string();
    EXPECT_EQ(saved.out, "New version found 999.0\n" + server_.url("/files/Vantorix-999.0.tar.gz") + "\n" + path + "\n");
    EXPECT_EQ(testing::fileContents(path), "package");
    EXPECT_EQ(std::distance(fs::directory_iterator(downloads), fs::directory_iterator()), 1) << "no staging left";

    server_.get(kProductPath, [](const httplib::Request&, httplib::Response& response) { response.status = 500; });
    const auto failed = run({"check-update", "--json"});
    EXPECT_EQ(failed.exitStatus, 1);
    EXPECT_EQ(failed.err, "Update check failed: network error\n");
    EXPECT_EQ(nlohmann::json::parse(failed.out)["error"]["code"], "updateCheckFailed");

    if (std::string_view(VANTORIX_BUILT_SERVICE_URL) != "") return;
    const auto asked = server_.requests().size();
    EXPECT_EQ(run({"check-update"}, "zh_CN", false).out, "此版本通过系统的软件包管理器更新。\n");
    EXPECT_EQ(nlohmann::json::parse(run({"check-update", "--json"}, "en_US", false).out)["status"], "packageManaged");
    EXPECT_EQ(server_.requests().size(), asked);
}

TEST_F(ServicesCli, FeedbackIsCheckedThenSent) {
    server_.post("/api/feedback", [](const httplib::Request&, httplib::Response& response) {
        response.status = 201;
        response.set_content(R"({"success":true,"id":"abc"})", "application/json");
    });
    const auto accepted = run({"feedback", "--type", "bug", "--title", "Graph freezes", "--content",
                               "The graph stops after an hour of monitoring.", "--json"});
    EXPECT_EQ(accepted.exitStatus, 0) << accepted.err;
    EXPECT_EQ(nlohmann::json::parse(accepted.out), (nlohmann::json{{"accepted", true}, {"feedbackId", "abc"},
                                                                    {"message", "Submitted successfully. Feedback ID: abc"}}));
    const auto invalid = run({"feedback", "--title", "Bug", "--content", "The graph stops after an hour.", "--json"});
    EXPECT_EQ(invalid.exitStatus, 1);
    EXPECT_EQ(invalid.err, "Title length must be 5–100\n");
    EXPECT_EQ(nlohmann::json::parse(invalid.out)["error"]["code"], "invalidFeedback");
    EXPECT_EQ(server_.requests().size(), 1u) << "an invalid form sends nothing";
    EXPECT_EQ(run({"feedback", "--type", "praise", "--title", "Hello", "--content", "x"}).exitStatus, 2);
}

}  // namespace
}  // namespace vantorix
