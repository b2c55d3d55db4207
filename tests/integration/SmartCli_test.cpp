#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

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

// A model name from a drive's firmware or a saved file cannot drive the terminal: the text output
// shows its control characters as escapes, the JSON output escapes them as JSON does, and a byte
// that is not UTF-8 (a broken USB bridge's) becomes U+FFFD.
TEST(SmartCli, ControlCharactersFromTheFileNeverReachTheTerminalRaw) {
    const auto file = fs::temp_directory_path() / ("vantorix-smart-escapes-" + std::to_string(::getpid()) + ".json");
    std::ifstream in(kNvme);
    std::string saved((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string model = R"("INTEL SSDPEKNW010T8")";
    saved.replace(saved.find(model), model.size(), "\"\xff\\u001b[2J\\u001b[31mEVIL\\u0007\\nFAKE ROW  ok\\r\\u009b\\u007f\"");
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
    EXPECT_THAT(human.out, HasSubstr("  \uFFFD\\e[2J\\e[31mEVIL\\x07\\nFAKE ROW  ok\\r\\u009b\\x7f\n"));
    const auto json = smart({"--json-file", file.string(), "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_FALSE(raw(json.out)) << json.out;
    EXPECT_EQ(nlohmann::json::parse(json.out)["details"][1]["value"], "\uFFFD\x1b[2J\x1b[31mEVIL\a\nFAKE ROW  ok\r\xc2\x9b\x7f");
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
    const std::vector<std::pair<fs::path, std::string>> cases = {
        {dir / "missing.json", cannotRead(dir / "missing.json", "No such file or folder")},
        {dir / "text.json", "The file is not smartctl JSON output.\n"},
        {dir / "empty.json", "The file holds no usable SMART information.\n"},
        {dir, cannotRead(dir, "It is a folder, not a regular file")},
        {dir / "fifo", cannotRead(dir / "fifo", "It is a named pipe (FIFO), not a regular file")},
        {"/dev/zero", cannotRead("/dev/zero", "It is a character device, not a regular file")},
        {dir / "huge.json", cannotRead(dir / "huge.json", "It is larger than 64 MiB, too large for a saved smartctl output")},
    };
    for (const auto& [path, error] : cases) {
        const auto result = smart({"--json-file", path});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.err, error);
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
        volume_ = testing::LoopVolume::create("VTXSMART", 32ull << 20, &error);  // for a 4 MB test
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

TEST_F(SmartCliLive, ShowsTheDrivesDataThroughTheHelperInTheUsersLanguage) {
    const auto human = smart({volume_->mountPoint()}, environment_);
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_EQ(human.out.substr(0, human.out.find("Model")),
              "Overall Status  PASSED\n\nSerial Number                              BTNH93710FS91P0B\n");
    const auto chinese = smart({volume_->mountPoint()}, with(environment_, kChinese));
    EXPECT_EQ(chinese.out.substr(0, chinese.out.find("型号")),
              "总体状态  PASSED\n\n序列号                                     BTNH93710FS91P0B\n");
    const auto json = smart({volume_->mountPoint(), "--json"}, environment_);
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    const auto document = nlohmann::json::parse(json.out);
    EXPECT_EQ(document["sourceCommand"], standIn_->path() + " --json -a -n standby " + volume_->device());
    ASSERT_EQ(document["details"].size(), 34U);
    const auto& first = document["details"][0];
    EXPECT_EQ(first["keyPath"].get<std::string>() + "|" + first["displayName"].get<std::string>() + "|" +
                  first["value"].get<std::string>(),
              "serial_number|Serial Number|BTNH93710FS91P0B");
    EXPECT_EQ(first["id"].get<std::string>().size(), 36U);
    // The loop device has no partition: one name to try. A request within a second of the last
    // run's end shares that run, so a command may not start smartctl again.
    const std::vector<std::string> arguments{"--json", "-a", "-n", "standby", volume_->device()};
    const auto starts = standIn_->starts();
    ASSERT_FALSE(starts.empty());
    EXPECT_LE(starts.size(), 3U);
    for (const auto& start : starts) EXPECT_EQ(start, arguments);

    // The performance test's report carries the drive's SMART data.
    const auto run = testing::runProcess({VANTORIX_CLI_PATH, "bench", volume_->mountPoint(), "--json", "--payload-bytes",
                                          "4000000", "--random-seconds", "0.1"},
                                         environment_);
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    std::ifstream report(nlohmann::json::parse(run.out)["reportPath"].get<std::string>());
    const std::string html{std::istreambuf_iterator<char>(report), std::istreambuf_iterator<char>()};
    EXPECT_THAT(html, HasSubstr("<strong>Overall Status:</strong> PASSED"));
    EXPECT_THAT(html, HasSubstr("BTNH93710FS91P0B"));
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

// With and without a helper; with --json, standard output carries the one JSON document.
TEST(SmartCliHelper, HelperCommandsReportTheHelperTheyFind) {
    if (::geteuid() != 0) GTEST_SKIP() << "the helper runs as root";
    auto standIn = testing::SmartctlStandIn::create(testing::printing(kNvme));
    const auto daemon = testing::startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    const std::string nowhere = "/nonexistent/helper.sock";
    const auto helper = [](const std::string& command, const std::string& socket, int status) {
        const auto run = testing::runProcess({VANTORIX_CLI_PATH, "helper", command, "--json"},
                                             with(kEnglish, {{"VANTORIX_HELPER_SOCKET", socket}}));
        EXPECT_EQ(run.exitStatus, status) << command << run.err;
        return nlohmann::json::parse(run.out);
    };
    const auto absent = helper("status", nowhere, 0);
    EXPECT_EQ(absent["serviceManager"], "external");
    EXPECT_EQ(absent["status"], "needsAdministrator");
    EXPECT_TRUE(absent["unitFile"].is_null() && absent["helperVersion"].is_null());
    EXPECT_THAT(helper("enable", nowhere, 1)["message"].get<std::string>(),
                HasSubstr("No Vantorix SMART helper running as root answers at"));
    EXPECT_THAT(helper("disable", nowhere, 0)["message"].get<std::string>(), HasSubstr("someone else runs"));
    const auto human = testing::runProcess({VANTORIX_CLI_PATH, "helper", "status"},
                                           with(kChinese, {{"VANTORIX_HELPER_SOCKET", nowhere}}));
    EXPECT_THAT(human.out, HasSubstr("需要管理员"));
    const auto present = helper("status", daemon->socketPath(), 0);
    EXPECT_EQ(present["status"], "enabled");
    EXPECT_EQ(present["socketPath"], daemon->socketPath());
    EXPECT_EQ(present["helperVersion"], VANTORIX_VERSION);
    EXPECT_EQ(present["allowsPrivilegedOperations"], true);
    EXPECT_EQ(helper("enable", daemon->socketPath(), 0)["success"], true);
}

// No helper, privileged operations disabled, a root process that accepts the connection and
// closes it at once, a listener that is not root: the command says why as soon as it knows, in the
// user's language, instead of waiting for the reply time-out.
TEST(SmartCliHelper, FailuresOfTheHelperSayWhyAtOnce) {
    if (::geteuid() != 0) GTEST_SKIP() << "the client talks only to a helper running as root";
    testing::HelperSocketStandIn closer(testing::HelperSocketStandIn::Behaviour::closeAtOnce, 0);
    testing::HelperSocketStandIn impostor(testing::HelperSocketStandIn::Behaviour::neverAnswer, 65534);
    const Environment nobody{{"VANTORIX_HELPER_SOCKET", "/nonexistent/helper.sock"}};
    const Environment closes{{"VANTORIX_HELPER_SOCKET", closer.path()}};
    const std::vector<std::tuple<Environment, std::vector<std::string>, std::string>> cases = {
        {with(kEnglish, nobody), {"/"},
         "Enable Permissions: No Vantorix SMART helper running as root answers at /nonexistent/helper.sock "
         "(VANTORIX_HELPER_SOCKET). Start it there as root, then please restart Vantorix.\n"},
        {with(kEnglish, nobody), {"/", "--watch"}, "Enable Permissions: No Vantorix SMART helper running as root"},
        {with(kChinese, nobody), {"/"}, "需要启用后台权限：/nonexistent/helper.sock（VANTORIX_HELPER_SOCKET）处没有以 root 身份运行的"},
        {with(kEnglish, {{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "1"}}), {"/"},
         "Privileged operations are disabled here (Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS), so SMART "
         "data cannot be read.\n"},
        {with(kEnglish, closes), {"/"}, ": it closed the connection before answering (VANTORIX_LOG=debug shows why).\n"},
        {with(kChinese, closes), {"/"}, "的 SMART 数据：它在应答之前关闭了连接"},
        {with(kEnglish, closes), {"/", "--watch"}, ": it closed the connection before answering"},
        {with(kEnglish, {{"VANTORIX_HELPER_SOCKET", impostor.path()}}), {"/"},
         "No Vantorix SMART helper running as root answers at " + impostor.path()},
    };
    for (const auto& [environment, args, message] : cases) {
        const auto result = smart(args, environment);
        EXPECT_EQ(result.exitStatus, 1) << result.err;
        EXPECT_THAT(result.err, HasSubstr(message));
        // Neither the drive's fault nor a time-out.
        for (const std::string other : {"gave no usable", "没有提供可用", "5 seconds", "5 秒"}) {
            EXPECT_THAT(result.err, Not(HasSubstr(other)));
        }
    }
    const auto json = smart({"/", "--json"}, with(kEnglish, closes));
    EXPECT_EQ(nlohmann::json::parse(json.out)["error"]["code"], "helperFailed");
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
    ASSERT_TRUE(testing::eventually([&] { return !(helpers = testing::childrenOf(watch->pid())).empty(); }));
    ASSERT_EQ(helpers.size(), 1U) << watch->standardError();
    EXPECT_EQ(helperFolders().size(), before.size() + 1);
    watch->signal(SIGINT);
    EXPECT_EQ(watch->waitForExit(10s), 130);
    EXPECT_NE(::kill(helpers[0], 0), 0);  // gone, and reaped
    EXPECT_EQ(helperFolders(), before);
}

}  // namespace
}  // namespace vantorix
