#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"
#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using testing::HttpTestServer;
using Environment = std::map<std::string, std::optional<std::string>>;

constexpr const char* kProductPath = "/api/products/vx7k2m9q4r8t1w5y3z6b0c2d4";

// The web-service commands against a loopback server, in English, with a home of their own.
class ServicesCli : public ::testing::Test {
protected:
    // `withService` false: the service the build names, which is none in a stock build.
    testing::ProcessResult run(const std::vector<std::string>& args, const std::string& language = "en_US",
                               bool withService = true) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        return testing::runProcess(
            argv, Environment{{"LANGUAGE", language},
                              {"LC_ALL", std::nullopt},
                              {"LANG", "C.UTF-8"},
                              {"HOME", home_.string()},
                              {"XDG_CONFIG_HOME", std::nullopt},
                              {"XDG_DOWNLOAD_DIR", std::nullopt},
                              {"VANTORIX_SERVICE_URL", withService ? std::optional(server_.url("")) : std::nullopt},
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

    void acceptFeedback() {
        server_.post("/api/feedback", [](const httplib::Request&, httplib::Response& response) {
            response.status = 201;
            response.set_content(R"({"success":true,"id":"abc"})", "application/json");
        });
    }

    HttpTestServer server_;
    testing::TemporaryFolder home_;
};

TEST_F(ServicesCli, CheckUpdateSaysWhatItFound) {
    offer("0.0");
    auto upToDate = run({"check-update"});
    EXPECT_EQ(upToDate.exitStatus, 0) << upToDate.err;
    EXPECT_EQ(upToDate.out, "Already up to date\n");
    upToDate = run({"check-update"}, "zh_CN");
    EXPECT_EQ(upToDate.out, "当前已是最新版本\n");

    offer("999.0");
    const auto json = run({"check-update", "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    const auto document = nlohmann::json::parse(json.out);
    EXPECT_EQ(document["status"], "updateAvailable");
    EXPECT_EQ(document["version"], "999.0");
    EXPECT_EQ(document["message"], "New version found 999.0");
    EXPECT_FALSE(fs::exists(home_.path() / "Downloads")) << "nothing is downloaded without --download";

    server_.get(kProductPath, [](const httplib::Request&, httplib::Response& response) { response.status = 500; });
    const auto failed = run({"check-update"});
    EXPECT_EQ(failed.exitStatus, 1);
    EXPECT_EQ(failed.out, "");
    EXPECT_EQ(failed.err, "Update check failed: network error\n");
    const auto failedJson = run({"check-update", "--json"});
    EXPECT_EQ(failedJson.exitStatus, 1);
    EXPECT_EQ(nlohmann::json::parse(failedJson.out),
              (nlohmann::json{{"error", {{"code", "updateCheckFailed"}, {"message", "Update check failed: network error"}}}}));
}

TEST_F(ServicesCli, CheckUpdateOfAStockBuildLeavesUpdatesToThePackageManager) {
    if (std::string_view(VANTORIX_BUILT_SERVICE_URL) != "") GTEST_SKIP() << "this build names a service";
    const std::pair<std::string, std::string> cases[] = {
        {"en_US", "This build is updated by your system's package manager.\n"},
        {"zh_CN", "此版本通过系统的软件包管理器更新。\n"},
    };
    for (const auto& [language, text] : cases) {
        const auto result = run({"check-update"}, language, false);
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        EXPECT_EQ(result.out, text);
    }
    const auto json = run({"check-update", "--json"}, "en_US", false);
    EXPECT_EQ(json.exitStatus, 0);
    EXPECT_EQ(nlohmann::json::parse(json.out)["status"], "packageManaged");
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(ServicesCli, CheckUpdateDownloadsIntoTheDownloadsFolder) {
    offer("999.0");
    const fs::path downloads = home_.path() / "Downloads";
    fs::create_directory(downloads);
    testing::writeFile(downloads / "Vantorix-999.0.tar.gz", "an older copy");

    const auto saved = run({"check-update", "--download"});
    ASSERT_EQ(saved.exitStatus, 0) << saved.err;
    const std::string path = (downloads / "Vantorix-999.0.tar.gz").string();
    EXPECT_EQ(saved.out, "New version found 999.0\n" + server_.url("/files/Vantorix-999.0.tar.gz") + "\n" + path + "\n");
    EXPECT_EQ(testing::fileContents(path), "package");
    EXPECT_EQ(std::distance(fs::directory_iterator(downloads), fs::directory_iterator()), 1) << "no staging left";
}

TEST_F(ServicesCli, FeedbackIsCheckedThenSent) {
    acceptFeedback();
    const std::vector<std::string> form{"feedback", "--type", "bug", "--title", "Graph freezes",
                                        "--content", "The graph stops after an hour of monitoring."};
    const auto accepted = run(form);
    EXPECT_EQ(accepted.exitStatus, 0) << accepted.err;
    EXPECT_EQ(accepted.out, "Submitted successfully. Feedback ID: abc\n");

    auto json = form;
    json.push_back("--json");
    const auto document = nlohmann::json::parse(run(json).out);
    EXPECT_EQ(document, (nlohmann::json{{"accepted", true}, {"message", "Submitted successfully. Feedback ID: abc"},
                                        {"feedbackId", "abc"}}));

    const auto invalid = run({"feedback", "--title", "Bug", "--content", "The graph stops after an hour.", "--json"});
    EXPECT_EQ(invalid.exitStatus, 1);
    EXPECT_EQ(invalid.err, "Title length must be 5–100\n");
    EXPECT_EQ(nlohmann::json::parse(invalid.out)["error"]["code"], "invalidFeedback");
    EXPECT_EQ(server_.requests().size(), 2u) << "an invalid form sends nothing";
    EXPECT_EQ(run({"feedback", "--type", "praise", "--title", "Hello", "--content", "x"}).exitStatus, 2);
}

}  // namespace
}  // namespace vantorix
