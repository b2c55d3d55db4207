#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <set>

#include "composition/SmartPipeline.h"
#include "integration/HelperTestClient.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "support/HelperSocketStandIn.h"
#include "support/LoopVolume.h"
#include "support/ManualMainExecutor.h"
#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using testing::Environment;
using testing::HelperSocketStandIn;

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
    HelperSocketStandIn closer(HelperSocketStandIn::Behaviour::closeAtOnce, 0);
    HelperSocketStandIn impostor(HelperSocketStandIn::Behaviour::neverAnswer, 65534);
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

class SmartPipelineIntegration : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the helper and its peer check need root";
    }
    // The SMART fetch as the programs put it together, pointed at a helper listening at `socketPath`.
    SmartPipeline pipelineAt(const std::string& socketPath) {
        return SmartPipeline::over(std::make_shared<ExternalHelperService>(socketPath), main_);
    }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
};

// The helper hands back what smartctl, run here the same way, says; this machine's virtual disk has
// no SMART, and that is the drive's lack, not a failure of the helper.
TEST_F(SmartPipelineIntegration, RealSmartctlAnswersThroughTheHelperAsItDoesRunDirectly) {
    const std::string smartctl = "/usr/sbin/smartctl";
    if (::access(smartctl.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << smartctl;
    const auto daemon = testing::startHelper(smartctl);
    ASSERT_NE(daemon, nullptr);
    const std::string disk = testing::rootDiskName();
    const std::string device = "/dev/" + disk;
    const auto reply = testing::HelperClient(daemon->socketPath()).ask(testing::fetchFrame(disk));
    const auto* run = testing::result(reply);
    ASSERT_NE(run, nullptr);
    const auto direct = testing::runProcess({smartctl, "--json", "-a", "-n", "standby", device});
    EXPECT_EQ(run->commandDescription, smartctl + " --json -a -n standby " + device);
    EXPECT_EQ(run->terminationStatus, direct.exitStatus);
    EXPECT_EQ(run->standardError, direct.err);
    const auto document = nlohmann::json::parse(run->jsonData);
    EXPECT_EQ(document["smartctl"]["argv"].back(), device);
    EXPECT_EQ(document["smartctl"]["exit_status"], run->terminationStatus);

    const auto outcome = pipelineAt(daemon->socketPath()).provider->fetch(disk);
    EXPECT_FALSE(outcome.info.has_value());
    EXPECT_FALSE(outcome.helperFailure.has_value());
}

// What the helper's side does decides how a request ends: a helper that never answers costs the
// time-out, one that closes the connection fails the request as soon as it does. Either way the
// connection is dropped and each request makes a fresh one.
TEST_F(SmartPipelineIntegration, EachRequestEndsAsTheHelpersSideDecides) {
    const std::pair<HelperSocketStandIn::Behaviour, HelperRequestFailure> cases[] = {
        {HelperSocketStandIn::Behaviour::neverAnswer, HelperRequestFailure::timedOut},
        {HelperSocketStandIn::Behaviour::closeAtOnce, HelperRequestFailure::brokenStream}};
    for (const auto& [behaviour, failure] : cases) {
        SCOPED_TRACE(static_cast<int>(behaviour));
        HelperSocketStandIn helper(behaviour, 0);
        const auto pipeline = pipelineAt(helper.path());
        for (int round = 1; round <= 2; ++round) {
            const auto run = pipeline.client->fetchSmartData("sda");
            ASSERT_FALSE(run.ok());
            EXPECT_EQ(run.error(), failure);
        }
        // One look by the helper manager (does a root helper listen?), then one connection per
        // request, each sent its request.
        const auto counts = helper.waitFor([](const auto& seen) { return seen.connections >= 3; }, 10s);
        EXPECT_EQ(counts.connections, 3U);
        if (behaviour == HelperSocketStandIn::Behaviour::neverAnswer) {
            EXPECT_GT(helper.waitFor([](const auto& seen) { return seen.bytes > 0; }, 10s).bytes, 0U);
        }
    }
}

TEST_F(SmartPipelineIntegration, NothingIsSentToAListenerThatIsNotRoot) {
    HelperSocketStandIn impostor(HelperSocketStandIn::Behaviour::neverAnswer, 65534);
    auto connection = UnixSocketHelperConnection::create(impostor.path());
    std::promise<HelperConnection::FetchAnswer> answered;
    std::atomic<bool> invalidated{false};
    connection->setInvalidationHandler([&] { invalidated = true; });
    connection->fetchSmartData("sda", [&](HelperConnection::FetchAnswer answer) { answered.set_value(std::move(answer)); });
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
    const auto answer = future.get();
    const auto* failure = std::get_if<ConnectionError>(&answer);
    ASSERT_NE(failure, nullptr);
    EXPECT_EQ(failure->failure, ConnectionFailure::peerNotRoot);
    EXPECT_THAT(failure->description, HasSubstr("runs as user 65534, not as user 0; nothing was sent to it"));
    EXPECT_TRUE(invalidated);  // set before the answer, on the connection's thread
    // Once the client has hung up, whatever it sent has arrived.
    const auto counts = impostor.waitFor([](const auto& seen) { return seen.closed >= 1; }, 10s);
    EXPECT_EQ(counts, (HelperSocketStandIn::Counts{1, 0, 1}));
    EXPECT_FALSE(helperListensAt(impostor.path()));
}

}  // namespace
}  // namespace vantorix
