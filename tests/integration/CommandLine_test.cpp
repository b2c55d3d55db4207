#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "services/HttpTestServer.h"
#include "services/ServiceTestSupport.h"
#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;

testing::ProcessResult cli(const std::vector<std::string>& args, const std::string& language) {
    std::vector<std::string> argv{VANTORIX_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {{"LANGUAGE", language}, {"LC_ALL", std::nullopt}, {"LANG", "C.UTF-8"}});
}

TEST(CommandLine, HelpOfEveryCommandIsInTheUsersLanguage) {
    const std::vector<std::string> english{"Usage", "Options", "Positionals", "Subcommands", "REQUIRED", "OPTIONS",
                                           "Print this help message"};
    for (const std::string command : {"", "info", "monitor", "bench", "smart", "helper", "check-update", "feedback", "serve"}) {
        SCOPED_TRACE(command);
        std::vector<std::string> args{"--help"};
        if (!command.empty()) args.insert(args.begin(), command);
        const auto chinese = cli(args, "zh_CN");
        EXPECT_EQ(chinese.exitStatus, 0);
        EXPECT_NE(chinese.out.find("\n用法：vantorix-cli" + (command.empty() ? "" : " " + command) + " [选项]"),
                  std::string::npos)
            << chinese.out;
        EXPECT_NE(chinese.out.find("\n选项：\n  -h,--help                   显示此帮助信息并退出\n"), std::string::npos);
        for (const auto& word : english) EXPECT_EQ(chinese.out.find(word), std::string::npos) << word << "\n" << chinese.out;
        const auto untranslated = cli(args, "en_US");
        EXPECT_NE(untranslated.out.find("\nOptions:\n  -h,--help                   Print this help message and exit\n"),
                  std::string::npos)
            << untranslated.out;
    }
    EXPECT_NE(cli({"--help"}, "zh_CN").out.find("\n子命令：\n  info "), std::string::npos);
    EXPECT_NE(cli({"info", "--help"}, "zh_CN").out.find("\n位置参数：\n  path TEXT 必需"), std::string::npos);
}

// Refused arguments: exit status 2, nothing on standard output, and one short line in the user's
// language (no 309-digit bound for a hostile number), then where to find help.
TEST(CommandLine, RefusedArgumentsSayWhyInOneShortLine) {
    const std::string help = "\nRun with --help for more information.\n";
    const std::string zhHelp = "\n运行时加上 --help 可查看更多信息。\n";
    std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
        {{}, "zh_CN", "需要一个子命令" + zhHelp},
        {{"info", "a", "b"}, "zh_CN", "多余的参数：b" + zhHelp},
        {{"info", "a", "b"}, "en_US", "The following argument was not expected: b" + help},
        {{"info"}, "zh_CN", "缺少必需的参数：path" + zhHelp},
        {{"monitor", "x", "--precision", "3"}, "zh_CN", "--precision：3 不是可选的值之一：{1,10,100,1000}" + zhHelp},
        {{"bench", "x", "--seconds", "0"}, "zh_CN", "--seconds：应为 0.1 到 3600 之间的秒数，而不是 0" + zhHelp},
        {{"serve", "--listen"}, "zh_CN", "--listen：缺少 1 个 TEXT 值" + zhHelp},
        {{"smart", "x", "--json-file", "y"}, "zh_CN", "path 不能与 --json-file 一起使用" + zhHelp},
        {{"monitor", "/", "--duration", "1e308"}, "en_US",
         "--duration: must be a number of seconds greater than 0 and at most 31536000, not 1e308" + help},
    };
    for (const auto& [command, option, number] : std::vector<std::array<std::string, 3>>{
             {"monitor", "--duration", "nan"}, {"monitor", "--duration", "inf"}, {"monitor", "--duration", "0"},
             {"monitor", "--duration", "-1"}, {"bench", "--random-seconds", "1e308"}, {"bench", "--random-seconds", "nan"},
             {"bench", "--seconds", "nan"}, {"bench", "--payload-bytes", "0"}, {"bench", "--payload-bytes", "-1"},
             {"bench", "--payload-bytes", "99999999999999999999999"}}) {
        cases.push_back({{command, "/", option, number}, "en_US", option + ": must be "});
    }
    for (const auto& [args, language, error] : cases) {
        const auto result = cli(args, language);
        SCOPED_TRACE(result.err);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind(error, 0), 0u);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2);
        EXPECT_LT(result.err.size(), 160u);
    }
}

// A path that leads to no volume: the fixed sentence, then why, in the user's language, and
// nothing on standard output; with --json, one error object there instead, the same from every
// command, its message the one on standard error.
TEST(CommandLine, APathThatLeadsNowhereSaysWhy) {
    const auto dir = fs::temp_directory_path() / ("vantorix-paths-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    fs::create_symlink(dir / "b", dir / "a");
    fs::create_symlink(dir / "a", dir / "b");
    testing::runShell("touch " + (dir / "file").string());
    const std::string sentence = "Failed to find the block device of the selected path. ";
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"/nonexistent/vantorix", "en_US", sentence + "No such file or folder.\n"},
        {"/nonexistent/vantorix", "zh_CN", "无法找到所选路径对应的块设备。没有这个文件或文件夹。\n"},
        {"/tmp/" + std::string(300, 'a'), "en_US", sentence + "File name or path too long.\n"},
        {(dir / "a").string(), "en_US", sentence + "Too many levels of symbolic links (a link loop?).\n"},
        {(dir / "file" / "x").string(), "en_US", sentence + "A part of the path is not a folder.\n"},
        {"", "zh_CN", "请选择一个有效的卷。\n"},
        {"ftp://host/x", "en_US", "Please select a valid volume.\n"},
    };
    for (const auto& [path, language, message] : cases) {
        const auto result = cli({"info", path}, language);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, message);
    }
    fs::remove_all(dir);
    std::set<std::string> errors;
    for (const std::string command : {"info", "monitor", "bench"}) {
        const auto result = cli({command, "/nonexistent/vantorix-\xff", "--json"}, "en_US");
        EXPECT_EQ(result.exitStatus, 1);
        const auto document = nlohmann::json::parse(result.out);
        ASSERT_EQ(document.size(), 1u);
        ASSERT_EQ(document["error"].size(), 2u);
        EXPECT_TRUE(std::regex_match(document["error"]["code"].get<std::string>(), std::regex("[a-z][A-Za-z]+")));
        EXPECT_EQ(result.err, document["error"]["message"].get<std::string>() + "\n");
        errors.insert(document["error"]["code"].get<std::string>());
    }
    EXPECT_EQ(errors.size(), 1u);
}


// The web-service commands against a loopback server, with a home of their own; a stock build,
// which names no service, leaves updates to the package manager.
TEST(CommandLine, CheckUpdateAndFeedbackSayWhatHappened) {
    testing::HttpTestServer server;
    testing::TemporaryFolder home;
    const auto run = [&](std::vector<std::string> args, bool withService = true) {
        args.insert(args.begin(), VANTORIX_CLI_PATH);
        const auto service = withService ? std::optional(server.url("")) : std::nullopt;
        return testing::runProcess(args, {{"LANGUAGE", "en_US"}, {"LC_ALL", std::nullopt}, {"HOME", home.string()},
                                          {"XDG_CONFIG_HOME", std::nullopt}, {"XDG_DOWNLOAD_DIR", std::nullopt},
                                          {"VANTORIX_SERVICE_URL", service}, {"VANTORIX_PRODUCT_ID", std::nullopt}});
    };
    const std::string package = server.url("/files/Vantorix-999.0.tar.gz");
    server.get("/api/products/vx7k2m9q4r8t1w5y3z6b0c2d4", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(R"({"id":"p1","currentVersion":"999.0","downloadUrl":")" + package + R"("})", "application/json");
    });
    server.get("/files/Vantorix-999.0.tar.gz", [](const httplib::Request&, httplib::Response& response) {
        response.set_content("package", "application/gzip");
    });
    server.post("/api/feedback", [](const httplib::Request&, httplib::Response& response) {
        response.status = 201;
        response.set_content(R"({"success":true,"id":"abc"})", "application/json");
    });
    fs::create_directory(home.path() / "Downloads");
    const auto saved = run({"check-update", "--download"});
    const std::string path = (home.path() / "Downloads" / "Vantorix-999.0.tar.gz").string();
    EXPECT_EQ(saved.out, "New version found 999.0\n" + package + "\n" + path + "\n") << saved.err;
    EXPECT_EQ(testing::fileContents(path), "package");
    if (std::string_view(VANTORIX_BUILT_SERVICE_URL).empty()) {
        EXPECT_EQ(run({"check-update"}, false).out, "This build is updated by your system's package manager.\n");
    }

    const auto sent = run({"feedback", "--type", "bug", "--title", "Graph freezes", "--content", "It stops after an hour."});
    EXPECT_EQ(sent.out, "Submitted successfully. Feedback ID: abc\n") << sent.err;
    const auto invalid = run({"feedback", "--title", "Bug", "--content", "The graph stops after an hour.", "--json"});
    EXPECT_EQ(invalid.exitStatus, 1);
    EXPECT_EQ(invalid.err, "Title length must be 5–100\n");
    EXPECT_EQ(nlohmann::json::parse(invalid.out)["error"]["code"], "invalidFeedback");
    EXPECT_EQ(server.requests().size(), 3u) << "an invalid form sends nothing";
}

}  // namespace
}  // namespace vantorix
