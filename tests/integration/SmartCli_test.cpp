#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "integration/HelperTestClient.h"
#include "support/HelperSocketStandIn.h"
#include "support/LoopVolume.h"
#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using Environment = std::map<std::string, std::optional<std::string>>;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

const Environment kEnglish{{"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt},
                           {"LANG", "en_US.UTF-8"}, {"VANTORIX_LOG", "off"}};
const Environment kChinese{{"LANGUAGE", "zh_CN:en"}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt},
                           {"LANG", "en_US.UTF-8"}, {"VANTORIX_LOG", "off"}};
const std::string kNvme = std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json";

testing::ProcessResult smart(const std::vector<std::string>& args, const Environment& environment = kEnglish) {
    std::vector<std::string> argv{VANTORIX_CLI_PATH, "smart"};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, environment);
}

TEST(SmartCli, PrintsStatusAndRowsInTheUsersLanguage) {
    const auto english = smart({"--json-file", kNvme});
    ASSERT_EQ(english.exitStatus, 0) << english.err;
    EXPECT_EQ(english.out.substr(0, english.out.find("Model")),
              "Overall Status  PASSED\n\nSerial Number                              BTNH93710FS91P0B\n");
    const auto chinese = smart({"--json-file", kNvme}, kChinese);
    ASSERT_EQ(chinese.exitStatus, 0) << chinese.err;
    EXPECT_EQ(chinese.out.substr(0, chinese.out.find("型号")),
              "总体状态  PASSED\n\n序列号                                     BTNH93710FS91P0B\n");
}

TEST(SmartCli, PrintsOneJsonDocument) {
    const auto result = smart({"--json-file", kNvme, "--json"});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["overallStatus"], "PASSED");
    EXPECT_TRUE(document["isCapable"].is_null());
    EXPECT_EQ(document["sourceCommand"], "smartctl --all --json /dev/testfoobarpass");
    ASSERT_EQ(document["details"].size(), 34U);
    EXPECT_EQ(document["details"][0]["keyPath"], "serial_number");
    EXPECT_EQ(document["details"][0]["displayName"], "Serial Number");
    EXPECT_EQ(document["details"][0]["value"], "BTNH93710FS91P0B");
    EXPECT_EQ(document["details"][0]["id"].get<std::string>().size(), 36U);
}

// A model name from a drive's firmware or a saved file cannot drive the terminal: the text output
// shows its control characters as escapes, the JSON output escapes them as JSON does.
TEST(SmartCli, ControlCharactersFromTheFileNeverReachTheTerminalRaw) {
    const auto file = fs::temp_directory_path() / ("vantorix-smart-escapes-" + std::to_string(::getpid()) + ".json");
    std::ifstream in(kNvme);
    std::string saved((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string model = R"("INTEL SSDPEKNW010T8")";
    saved.replace(saved.find(model), model.size(), R"("\u001b[2J\u001b[31mEVIL\u0007\nFAKE ROW  ok\r\u009b\u007f")");
    std::ofstream(file) << saved;
    const auto raw = [](const std::string& out) {
        for (std::size_t i = 0; i < out.size(); ++i) {
            const auto c = static_cast<unsigned char>(out[i]);
            if ((c < 0x20 && c != '\n') || c == 0x7F) return true;
            if (c == 0xC2 && i + 1 < out.size() && static_cast<unsigned char>(out[i + 1]) <= 0x9F) return true;
        }
        return false;
    };
    const auto human = smart({"--json-file", file.string()});
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_FALSE(raw(human.out)) << human.out;
    EXPECT_THAT(human.out, HasSubstr("  \\e[2J\\e[31mEVIL\\x07\\nFAKE ROW  ok\\r\\u009b\\x7f\n"));
    const auto json = smart({"--json-file", file.string(), "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_FALSE(raw(json.out)) << json.out;
    EXPECT_EQ(nlohmann::json::parse(json.out)["details"][1]["value"], "\x1b[2J\x1b[31mEVIL\a\nFAKE ROW  ok\r\xc2\x9b\x7f");
    fs::remove(file);
}

// Only a regular file of at most 64 MiB is read; whatever else is named, the message says why not.
TEST(SmartCli, FailsWithTheCauseForFilesThatAreNoSavedOutput) {
    const auto dir = fs::temp_directory_path() / ("vantorix-smart-cli-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "text.json") << "smartctl 7.3";
    std::ofstream(dir / "empty.json") << R"({"smartctl": {"exit_status": 2}, "device": {}})";
    std::ofstream(dir / "huge.json") << "{";
    fs::resize_file(dir / "huge.json", (64u << 20) + 1);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    const auto cannotRead = [](const fs::path& path, const std::string& cause) {
        return "Cannot read " + path.string() + ". " + cause + ".\n";
    };
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{"--json-file", (dir / "missing.json").string()}, 1, cannotRead(dir / "missing.json", "No such file or folder")},
        {{"--json-file", (dir / "text.json").string()}, 1, "The file is not smartctl JSON output.\n"},
        {{"--json-file", (dir / "empty.json").string()}, 1, "The file holds no usable SMART information.\n"},
        {{"--json-file", dir.string()}, 1, cannotRead(dir, "It is a folder, not a regular file")},
        {{"--json-file", (dir / "fifo").string()}, 1, cannotRead(dir / "fifo", "It is a named pipe (FIFO), not a regular file")},
        {{"--json-file", "/dev/zero"}, 1, cannotRead("/dev/zero", "It is a character device, not a regular file")},
        {{"--json-file", (dir / "huge.json").string()}, 1,
         cannotRead(dir / "huge.json", "It is larger than 64 MiB, too large for a saved smartctl output")},
        {{}, 2, ""},
    };
    for (const auto& c : cases) {
        const auto result = smart(c.args);
        EXPECT_EQ(result.exitStatus, c.status) << result.err;
        if (!c.error.empty()) {
            EXPECT_EQ(result.err, c.error);
        }
    }
    const auto json = smart({"--json-file", (dir / "empty.json").string(), "--json"});
    EXPECT_EQ(nlohmann::json::parse(json.out)["error"]["code"], "noUsableData");
    fs::remove_all(dir);
}


Environment with(Environment environment, const Environment& more) {
    for (const auto& [name, value] : more) environment[name] = value;
    return environment;
}

// The live path: a loop volume whose "drive" is a helper running a smartctl stand-in.
class SmartCliLive : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = testing::LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
        std::string error;
        volume_ = testing::LoopVolume::create("VTXSMART", 32ull * 1024 * 1024, &error);
        ASSERT_NE(volume_, nullptr) << error;
        testing::StandInBehaviour behaviour = testing::printing(kNvme);
        behaviour.exitStatus = 4;  // "some SMART command failed": a bit that still comes with usable JSON
        standIn_ = testing::SmartctlStandIn::create(behaviour);
        daemon_ = testing::HelperDaemon::start({standIn_->path(), {}}, &error);
        ASSERT_NE(daemon_, nullptr) << error;
        environment_ = with(kEnglish, {{"VANTORIX_HELPER_SOCKET", daemon_->socketPath()}});
    }

    std::unique_ptr<testing::LoopVolume> volume_;
    std::unique_ptr<testing::SmartctlStandIn> standIn_;
    std::unique_ptr<testing::HelperDaemon> daemon_;
    Environment environment_;
};

TEST_F(SmartCliLive, ShowsTheDrivesDataThroughTheHelper) {
    const auto human = smart({volume_->mountPoint()}, environment_);
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_EQ(human.out.substr(0, human.out.find("Model")),
              "Overall Status  PASSED\n\nSerial Number                              BTNH93710FS91P0B\n");
    const auto json = smart({volume_->mountPoint(), "--json"}, environment_);
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    const auto document = nlohmann::json::parse(json.out);
    EXPECT_EQ(document["sourceCommand"], standIn_->path() + " --json -a -n standby " + volume_->device());
    EXPECT_EQ(document["details"].size(), 34U);
    // The loop device has no partition: one name to try. A request within a second of the last
    // run's end shares that run, so the second command may not start smartctl again.
    const std::vector<std::string> arguments{"--json", "-a", "-n", "standby", volume_->device()};
    const auto starts = standIn_->starts();
    ASSERT_FALSE(starts.empty());
    EXPECT_LE(starts.size(), 2U);
    for (const auto& start : starts) EXPECT_EQ(start, arguments);
}

TEST_F(SmartCliLive, WatchPublishesEveryRefreshWithFreshRowsAndTheChangeOnce) {
    auto watch = testing::RunningProcess::start({VANTORIX_CLI_PATH, "smart", volume_->mountPoint(), "--watch", "--json"},
                                                environment_);
    const auto next = [&] {
        const auto line = watch->readLine(10s);
        EXPECT_TRUE(line.has_value()) << watch->standardError();
        return line ? nlohmann::json::parse(*line) : nlohmann::json();
    };
    const auto first = next();
    const auto second = next();
    ASSERT_EQ(first["smart"]["overallStatus"], "PASSED");
    // Every interpretation makes fresh row ids, so the unchanged answer is published again.
    EXPECT_EQ(second["smart"]["overallStatus"], "PASSED");
    EXPECT_EQ(second["smart"]["details"].size(), first["smart"]["details"].size());
    EXPECT_EQ(second["smart"]["details"][0]["value"], first["smart"]["details"][0]["value"]);
    EXPECT_NE(second["smart"]["details"][0]["id"], first["smart"]["details"][0]["id"]);

    // Another drive's answer: its serial number, the first row, shows from the first refresh after
    // the change (or the one after, when a request still shared the run before it) and stays.
    standIn_->setBehaviour(testing::printing(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme-failed.json"));
    std::vector<std::string> serials;
    for (int i = 0; i < 4; ++i) serials.push_back(next()["smart"]["details"][0]["value"].get<std::string>());
    const auto changed = std::find(serials.begin(), serials.end(), "S466NX0M776250H");
    ASSERT_NE(changed, serials.end());
    EXPECT_LE(changed - serials.begin(), 1);
    EXPECT_TRUE(std::all_of(changed, serials.end(), [](const std::string& s) { return s == "S466NX0M776250H"; }));

    watch->signal(SIGINT);
    EXPECT_EQ(watch->waitForExit(10s), 130);
    EXPECT_THAT(watch->standardError(), HasSubstr("Watching the SMART data of VTXSMART (" + volume_->deviceName() + ")"));
}

TEST_F(SmartCliLive, TheBenchReportCarriesTheDrivesSmartData) {
    const auto run = testing::runProcess({VANTORIX_CLI_PATH, "bench", volume_->mountPoint(), "--json", "--payload-bytes",
                                          "4000000", "--random-seconds", "0.1"},
                                         environment_);
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const std::string report = nlohmann::json::parse(run.out)["reportPath"];
    std::ifstream in(report);
    std::stringstream html;
    html << in.rdbuf();
    EXPECT_THAT(html.str(), HasSubstr("<strong>Overall Status:</strong> PASSED"));
    EXPECT_THAT(html.str(), HasSubstr("BTNH93710FS91P0B"));
    fs::remove(report);
}

TEST(SmartCliHelper, SaysWhyTheHelperCannotBeAskedAndHowToEnableIt) {
    const Environment nobody{{"VANTORIX_HELPER_SOCKET", "/nonexistent/helper.sock"}};
    struct Case {
        Environment environment;
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {with(kEnglish, nobody), {"/"},
         "Enable Permissions: No Vantorix SMART helper running as root answers at /nonexistent/helper.sock "
         "(VANTORIX_HELPER_SOCKET). Start it there as root, then please restart Vantorix.\n"},
        {with(kEnglish, nobody), {"/", "--watch"}, "Enable Permissions: No Vantorix SMART helper running as root"},
        {with(kChinese, nobody), {"/"}, "需要启用后台权限：/nonexistent/helper.sock（VANTORIX_HELPER_SOCKET）处没有以 root 身份运行的"},
        {with(kEnglish, {{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "1"}}), {"/"},
         "Privileged operations are disabled here (Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS), so SMART "
         "data cannot be read.\n"},
        {kEnglish, {"/missing-folder-of-vantorix"}, "Failed to find the block device of the selected path. No such file"},
    };
    for (const auto& c : cases) {
        const auto result = smart(c.args, c.environment);
        EXPECT_EQ(result.exitStatus, 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr(c.message));
    }
}

// With --json, standard output carries the one JSON document and nothing else.
TEST(SmartCliHelper, HelperCommandsReportTheHelperTheyFind) {
    const auto helper = [](const std::vector<std::string>& args, const Environment& environment, int status) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "helper"};
        argv.insert(argv.end(), args.begin(), args.end());
        const auto run = testing::runProcess(argv, environment);
        EXPECT_EQ(run.exitStatus, status) << run.err;
        return std::make_pair(nlohmann::json::parse(run.out), run.err);
    };
    const Environment elsewhere{{"VANTORIX_HELPER_SOCKET", "/nonexistent/helper.sock"}};
    const auto nobody = with(kEnglish, elsewhere);
    const auto [absent, quiet] = helper({"status", "--json"}, nobody, 0);
    EXPECT_EQ(absent["serviceManager"], "external");
    EXPECT_EQ(absent["status"], "needsAdministrator");
    EXPECT_TRUE(absent["unitFile"].is_null());
    EXPECT_TRUE(absent["helperVersion"].is_null());
    const auto human = testing::runProcess({VANTORIX_CLI_PATH, "helper", "status"}, with(kChinese, elsewhere));
    EXPECT_THAT(human.out, HasSubstr("状态"));
    EXPECT_THAT(human.out, HasSubstr("需要管理员"));
    const auto [refused, why] = helper({"enable", "--json"}, nobody, 1);
    EXPECT_EQ(refused["success"], false);
    EXPECT_THAT(refused["message"].get<std::string>(), HasSubstr("No Vantorix SMART helper running as root answers at"));
    EXPECT_THAT(why, HasSubstr("No Vantorix SMART helper running as root answers at"));
    const auto [kept, none] = helper({"disable", "--json"}, nobody, 0);
    EXPECT_THAT(kept["message"].get<std::string>(), HasSubstr("someone else runs"));

    if (::geteuid() != 0) GTEST_SKIP() << "the helper runs as root";
    auto standIn = testing::SmartctlStandIn::create(testing::printing(kNvme));
    std::string error;
    auto daemon = testing::HelperDaemon::start({standIn->path(), {}}, &error);
    ASSERT_NE(daemon, nullptr) << error;
    const auto running = with(kEnglish, {{"VANTORIX_HELPER_SOCKET", daemon->socketPath()}});
    const auto [present, ignored] = helper({"status", "--json"}, running, 0);
    EXPECT_EQ(present["status"], "enabled");
    EXPECT_EQ(present["socketPath"], daemon->socketPath());
    EXPECT_EQ(present["helperVersion"], "0.1.0");
    EXPECT_EQ(present["allowsPrivilegedOperations"], true);
    const auto [enabled, silent] = helper({"enable", "--json"}, running, 0);
    EXPECT_EQ(enabled["success"], true);
    EXPECT_EQ(silent, "");
}

// A root process that accepts the connection and closes it at once, or a listener that is not root:
// the command says the helper failed and how as soon as it knows, in the user's language, instead
// of waiting for the reply time-out.
TEST(SmartCliHelper, AHelperThatMisbehavesFailsTheCommandAtOnceSayingHow) {
    if (::geteuid() != 0) GTEST_SKIP() << "the client talks only to a helper running as root";
    testing::HelperSocketStandIn closer(testing::HelperSocketStandIn::Behaviour::closeAtOnce, 0);
    testing::HelperSocketStandIn impostor(testing::HelperSocketStandIn::Behaviour::neverAnswer, 65534);
    const Environment socket{{"VANTORIX_HELPER_SOCKET", closer.path()}};
    struct Case {
        Environment environment;
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {with(kEnglish, socket), {"/"}, "The SMART helper failed to read the SMART data of "},
        {with(kEnglish, socket), {"/"}, ": it closed the connection before answering (VANTORIX_LOG=debug shows why).\n"},
        {with(kChinese, socket), {"/"}, "SMART 辅助程序未能读取 "},
        {with(kChinese, socket), {"/"}, "的 SMART 数据：它在应答之前关闭了连接"},
        {with(kEnglish, socket), {"/", "--watch"}, ": it closed the connection before answering"},
        {with(kEnglish, {{"VANTORIX_HELPER_SOCKET", impostor.path()}}), {"/"},
         "No Vantorix SMART helper running as root answers at " + impostor.path()},
    };
    for (const auto& c : cases) {
        const auto result = smart(c.args, c.environment);
        EXPECT_EQ(result.exitStatus, 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr(c.message));
        // Neither the drive's fault nor a time-out.
        for (const std::string other : {"gave no usable", "没有提供可用", "5 seconds", "5 秒"}) {
            EXPECT_THAT(result.err, Not(HasSubstr(other)));
        }
    }
    const auto json = smart({"/", "--json"}, with(kEnglish, socket));
    EXPECT_EQ(nlohmann::json::parse(json.out)["error"]["code"], "helperFailed");
}

// The helpers the CLI started (its children), as process ids.
std::vector<pid_t> helperChildren(pid_t parent) {
    std::vector<pid_t> children;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string pid, name, state;
        pid_t ppid = 0;
        if (stat >> pid >> name >> state >> ppid && ppid == parent && name.find("vantorix-smart") != std::string::npos) {
            children.push_back(std::stoi(pid));
        }
    }
    return children;
}

std::set<std::string> helperFolders() {
    std::set<std::string> folders;
    for (const auto& root : {"/run", "/tmp"}) {
        for (const auto& entry : fs::directory_iterator(root)) {
            if (entry.path().filename().string().rfind("vantorix-helper.", 0) == 0) folders.insert(entry.path());
        }
    }
    return folders;
}

TEST(SmartCliHelper, WithoutSystemdARootProcessRunsItsOwnHelperAndLeavesNothingBehind) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    if (fs::exists("/run/systemd/system")) GTEST_SKIP() << "systemd runs here: the helper is its business";
    const Environment standalone = with(kEnglish, {{"VANTORIX_HELPER_SOCKET", std::nullopt}});
    const auto before = helperFolders();

    const auto once = smart({"/"}, standalone);
    EXPECT_THAT(once.err, HasSubstr("gave no usable SMART information"));  // this machine's virtual disk
    EXPECT_EQ(helperFolders(), before);

    auto watch = testing::RunningProcess::start({VANTORIX_CLI_PATH, "smart", "/", "--watch"}, standalone);
    std::vector<pid_t> helpers;
    for (int i = 0; i < 500 && helpers.empty(); ++i) {
        std::this_thread::sleep_for(10ms);
        helpers = helperChildren(watch->pid());
    }
    ASSERT_EQ(helpers.size(), 1U) << watch->standardError();
    EXPECT_EQ(helperFolders().size(), before.size() + 1);
    watch->signal(SIGINT);
    EXPECT_EQ(watch->waitForExit(10s), 130);
    EXPECT_NE(::kill(helpers[0], 0), 0);  // gone, and reaped
    EXPECT_EQ(helperFolders(), before);
}

}  // namespace
}  // namespace vantorix
