#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <optional>
#include <string>
#include <vector>

#include "support/LoopVolume.h"
#include "support/Process.h"

namespace vantorix {
namespace {

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

TEST(CommandLine, ParseErrorsAreInTheUsersLanguage) {
    struct Case {
        std::vector<std::string> args;
        std::string language;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{}, "zh_CN", "需要一个子命令\n运行时加上 --help 可查看更多信息。\n"},
        {{"info", "a", "b"}, "zh_CN", "多余的参数：b\n运行时加上 --help 可查看更多信息。\n"},
        {{"info", "a", "b"}, "en_US", "The following argument was not expected: b\nRun with --help for more information.\n"},
        {{"info"}, "zh_CN", "缺少必需的参数：path\n运行时加上 --help 可查看更多信息。\n"},
        {{"monitor", "x", "--precision", "3"}, "zh_CN", "--precision：3 不是可选的值之一：{1,10,100,1000}\n运行时加上 --help 可查看更多信息。\n"},
        {{"bench", "x", "--seconds", "0"}, "zh_CN", "--seconds：应为 0.1 到 3600 之间的秒数，而不是 0\n运行时加上 --help 可查看更多信息。\n"},
        {{"monitor", "x", "--duration", "1e308"}, "en_US",
         "--duration: must be a number of seconds greater than 0 and at most 31536000, not 1e308\nRun with --help for more "
         "information.\n"},
        {{"serve", "--listen"}, "zh_CN", "--listen：缺少 1 个 TEXT 值\n运行时加上 --help 可查看更多信息。\n"},
        {{"smart", "x", "--json-file", "y"}, "zh_CN", "path 不能与 --json-file 一起使用\n运行时加上 --help 可查看更多信息。\n"},
    };
    for (const auto& c : cases) {
        const auto result = cli(c.args, c.language);
        EXPECT_EQ(result.exitStatus, 2) << c.error;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, c.error);
    }
}

TEST(CommandLine, WithJsonAFailureIsOneErrorObjectOnStandardOutput) {
    // The same failure has the same code in every command, and its message is the one on standard error.
    const std::string missing = "/nonexistent/vantorix-\xff";
    std::set<std::string> codes;
    for (const std::vector<std::string>& args : {std::vector<std::string>{"info", missing, "--json"},
                                                 std::vector<std::string>{"monitor", missing, "--json"},
                                                 std::vector<std::string>{"bench", missing, "--json"}}) {
        SCOPED_TRACE(args.front());
        const auto result = cli(args, "en_US");
        EXPECT_EQ(result.exitStatus, 1);
        const auto document = nlohmann::json::parse(result.out);
        ASSERT_EQ(document.size(), 1u);
        ASSERT_EQ(document["error"].size(), 2u);
        const std::string code = document["error"]["code"];
        EXPECT_TRUE(std::regex_match(code, std::regex("[a-z][A-Za-z]+"))) << code;
        EXPECT_EQ(result.err, document["error"]["message"].get<std::string>() + "\n");
        codes.insert(code);
    }
    EXPECT_EQ(codes.size(), 1u);
}

// Numbers that are not finite, not positive or absurdly large are refused before anything runs,
// with one short line (no 309-digit bound) and exit status 2.
TEST(CommandLine, HostileNumbersAreRefusedWithOneShortLine) {
    const std::vector<std::vector<std::string>> cases = {
        {"monitor", "/", "--duration", "nan"},   {"monitor", "/", "--duration", "inf"},
        {"monitor", "/", "--duration", "0"},     {"monitor", "/", "--duration", "-1"},
        {"monitor", "/", "--duration", "1e308"}, {"bench", "/", "--random-seconds", "1e308"},
        {"bench", "/", "--random-seconds", "nan"}, {"bench", "/", "--seconds", "nan"},
        {"bench", "/", "--payload-bytes", "0"},  {"bench", "/", "--payload-bytes", "-1"},
        {"bench", "/", "--payload-bytes", "99999999999999999999999"},
    };
    for (const auto& args : cases) {
        const auto result = cli(args, "en_US");
        SCOPED_TRACE(result.err);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind(args[2] + ": must be ", 0), 0u);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2);
        EXPECT_LT(result.err.size(), 160u);
    }
}

// A path that leads to no volume: the fixed sentence, then why, in the user's language, and
// nothing on standard output.
TEST(CommandLine, APathThatLeadsNowhereSaysWhy) {
    const auto dir = std::filesystem::temp_directory_path() / ("vantorix-paths-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::filesystem::create_symlink(dir / "b", dir / "a");
    std::filesystem::create_symlink(dir / "a", dir / "b");
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
    std::filesystem::remove_all(dir);
}

// Every signal a session sends, and a reader that goes away, stop a running performance test the
// way Ctrl-C does: the test files are removed before the program ends with 128 + the signal.
TEST(CommandLine, EverySignalStopsTheTestAndRemovesItsFiles) {
    if (const auto reason = testing::LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    const auto volume = testing::LoopVolume::create("VTXSIGNAL", 256ull << 20, &error);
    ASSERT_TRUE(volume) << error;
    const auto testFiles = [&volume] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(volume->mountPoint())) {
            if (entry.path().filename().string().rfind("Vantorix_IO_", 0) == 0) names.push_back(entry.path());
        }
        return names;
    };
    const std::map<std::string, std::optional<std::string>> environment{
        {"LANGUAGE", "en_US"}, {"VANTORIX_LOG", "off"}, {"VANTORIX_HELPER_SOCKET", "/nonexistent/vantorix.sock"}};
    for (const int signal : {SIGHUP, SIGQUIT, SIGTERM, SIGINT, SIGPIPE}) {
        SCOPED_TRACE(strsignal(signal));
        auto bench = testing::RunningProcess::start({VANTORIX_CLI_PATH, "bench", volume->mountPoint(), "--payload-bytes",
                                                     "33554432", "--random-seconds", "120"},
                                                    environment, /*errorsToOutput=*/true);
        // Progress lines come while the random phase runs in its file.
        for (int line = 0; line < 600 && testFiles().empty(); ++line) ASSERT_TRUE(bench->readLine(std::chrono::seconds(60)));
        ASSERT_FALSE(testFiles().empty());
        // Sent twice at once, as `timeout` and service managers do (to the process and to its group).
        if (signal == SIGPIPE) {
            bench->closeOutput();
        } else {
            bench->signal(signal);
            bench->signal(signal);
        }
        EXPECT_EQ(bench->waitForExit(std::chrono::seconds(60)), 128 + signal);
        EXPECT_EQ(testFiles(), std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace vantorix
