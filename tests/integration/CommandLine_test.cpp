#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <optional>
#include <string>
#include <vector>

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
        {{"bench", "x", "--seconds", "0"}, "zh_CN", "--seconds：值 0 不在 0.100000 到 3600.000000 之间\n运行时加上 --help 可查看更多信息。\n"},
        {{"monitor", "x", "--duration", "-1"}, "en_US", "--duration: Value -1 is not a positive number\nRun with --help for more information.\n"},
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

}  // namespace
}  // namespace vantorix
