#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "composition/SmartPipeline.h"
#include "integration/HelperTestClient.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "support/HelperSocketStandIn.h"
#include "support/LoopVolume.h"
#include "support/ManualMainExecutor.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace testing;
using protocol::HelperFailure;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kSocketActivate = "/usr/bin/systemd-socket-activate";

TEST(HelperActivation, SocketActivatedDaemonAnswersAndLeavesWhenIdle) {
    if (::access(kSocketActivate.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kSocketActivate << " (package systemd)";
    auto standIn = SmartctlStandIn::create(printing(kHelperFixture));
    const std::string socket = fs::path(standIn->path()).parent_path() / "activated.sock";
    // systemd-socket-activate listens, then on the first connection becomes the daemon (same pid).
    auto activator = RunningProcess::start(
        {kSocketActivate, "-l", socket, VANTORIX_HELPER_PATH, "--smartctl", standIn->path(), "--exit-idle-ms", "500"});
    ASSERT_TRUE(eventually([&] { return fs::exists(socket); }));
    // Its version reply is read by the helper commands' test.
    auto client = std::make_unique<HelperClient>(socket);
    const auto reply = client->ask(fetchFrame(rootDiskName()));
    ASSERT_NE(result(reply), nullptr);
    EXPECT_EQ(result(reply)->jsonData, fileContents(kHelperFixture));
    EXPECT_EQ(standIn->starts().size(), 1U);

    // With no client left and nothing running, it exits by itself (systemd would start it again).
    client.reset();
    EXPECT_EQ(activator->waitForExit(10s), 0);
    // A file at its socket path that is not a socket is left alone.
    EXPECT_EQ(runProcess({VANTORIX_HELPER_PATH, "--socket", standIn->path(), "--smartctl", "x"}).exitStatus, 1);
    EXPECT_TRUE(fs::is_regular_file(standIn->path()));
}

std::vector<std::unique_ptr<HelperClient>> clientsAsking(const HelperDaemon& daemon,
                                                         const std::vector<std::string>& names) {
    std::vector<std::unique_ptr<HelperClient>> clients;
    for (const auto& name : names) {
        clients.push_back(std::make_unique<HelperClient>(daemon.socketPath()));
        EXPECT_TRUE(clients.back()->send(fetchFrame(name)));
    }
    return clients;
}

// Five devices, one client each, and 49 more clients of the first: four runs start, the fifth device
// waits for a free slot, the clients of one device share its run, and every hanging run is killed.
TEST(HelperFaults, HangingRunsAreKilledAtMostFourRunAtOnceAndClientsOfADeviceShareItsRun) {
    if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::vector<std::unique_ptr<LoopVolume>> volumes;  // only for their device names
    std::vector<std::string> names;
    for (std::string error; names.size() < 5; names.push_back(volumes.back()->deviceName())) {
        volumes.push_back(LoopVolume::create("HANG", 8U << 20U, &error));
        ASSERT_NE(volumes.back(), nullptr) << error;
    }
    auto standIn = SmartctlStandIn::create({StandInBehaviour::Mode::hang, "", "", 0});
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    auto asked = names;
    asked.insert(asked.end(), 49, names[0]);
    const auto clients = clientsAsking(*daemon, asked);
    ASSERT_TRUE(eventually([&] { return standIn->starts().size() >= 4; }));
    // No fifth run starts before one of the four has ended, and it is answered as it ends.
    const auto answered = [&] {
        std::vector<pollfd> ready;
        for (std::size_t i = 0; i < 4; ++i) ready.push_back({clients[i]->fd, POLLIN, 0});
        return ::poll(ready.data(), ready.size(), 10) > 0;
    };
    for (int round = 0; round < 2000; ++round) {
        const auto started = standIn->starts().size();
        if (answered()) break;
        ASSERT_LE(started, 4U);
    }
    for (std::size_t i = 0; i < asked.size(); ++i) {
        const auto code = failure(clients[i]->reply(12s));  // 12 s: a hang guard
        const bool shared = i >= names.size();
        EXPECT_TRUE(code == HelperFailure::timedOut ||
                    (shared && (code == HelperFailure::busy || code == HelperFailure::deviceStuck)))
            << i;
    }
    const auto starts = standIn->starts();
    ASSERT_EQ(starts.size(), 5U);
    EXPECT_EQ(starts.back(), (std::vector<std::string>{"--json", "-a", "-n", "standby", "/dev/" + names[4]}));
    EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
}

TEST(HelperFaults, FloodsAndMissingProgramsFailWithTheirErrors) {
    auto flood = SmartctlStandIn::create({StandInBehaviour::Mode::flood, "", "", 0});
    for (const auto& [program, expected] : std::vector<std::pair<std::string, HelperFailure>>{
             {flood->path(), HelperFailure::outputTooLarge}, {"/nonexistent/smartctl", HelperFailure::launchFailed}}) {
        auto daemon = startHelper(program);
        ASSERT_NE(daemon, nullptr);
        EXPECT_EQ(failure(HelperClient(daemon->socketPath()).ask(fetchFrame(rootDiskName()))), expected) << program;
        EXPECT_TRUE(eventually([&] { return childrenOf(daemon->pid()).empty(); }));
        EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), kPeakKilobytes);
    }
}

TEST(HelperFaults, FiftyClientsOfOneDeviceShareRunsInBoundedMemory) {
    // 3 MiB of output: fifty private copies of its reply would take about 200 MiB.
    auto standIn = SmartctlStandIn::create(printing(""));
    const std::string output = fs::path(standIn->path()).parent_path() / "output.json";
    std::ofstream(output) << std::string(3U << 20U, 'y');
    standIn->setBehaviour(printing(output));
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);

    const auto clients = clientsAsking(*daemon, std::vector<std::string>(50, rootDiskName()));
    // Every reply is taken off its socket before any is decoded, so that no client keeps the
    // daemon waiting to write for longer than it allows.
    std::vector<std::optional<std::string>> payloads;
    for (const auto& client : clients) payloads.push_back(readFrame(client->fd, 10s));
    for (const auto& payload : payloads) {
        ASSERT_TRUE(payload.has_value());
        const auto reply = protocol::parsedReply(*payload);
        ASSERT_NE(result(reply), nullptr);
        EXPECT_EQ(result(reply)->jsonData.size(), 3U << 20U);
    }
    EXPECT_LE(standIn->starts().size(), 3U);
    EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), kPeakKilobytes);
}

TEST(HelperFaults, SigtermKillsRunsAndRemovesTheSocket) {
    auto standIn = SmartctlStandIn::create({StandInBehaviour::Mode::hang, "", "", 0});
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.send(fetchFrame(rootDiskName())));
    ASSERT_TRUE(eventually([&] { return !childrenOf(daemon->pid()).empty(); }));
    const pid_t child = childrenOf(daemon->pid()).front();
    EXPECT_EQ(daemon->stop(), 0);
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(child)));
    EXPECT_FALSE(fs::exists(daemon->socketPath()));
    EXPECT_TRUE(peerClosed(client.fd, 1s));
}

TEST(HelperRequests, ChildRunsWithAFixedEnvironmentAndNothingInherited) {
    auto standIn = SmartctlStandIn::create(printing(""));  // only for its temporary folder
    const std::string script = fs::path(standIn->path()).parent_path() / "inspect";
    // Its process id and group, its environment, then each open descriptor and what it leads to.
    std::ofstream(script) << "#!/bin/sh\n"
                             "echo $$ $(cut -d' ' -f5 /proc/$$/stat)\n"
                             "tr '\\0' ' ' < /proc/$$/environ; echo\n"
                             "find /proc/$$/fd -mindepth 1 -printf '%f %l\\n'\n";  // from outside the shell
    fs::permissions(script, fs::perms::owner_all | fs::perms::others_exec | fs::perms::others_read);
    auto daemon = startHelper(script);
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());  // open while the child runs: it must not inherit it
    const auto reply = client.ask(fetchFrame(rootDiskName()));
    ASSERT_NE(result(reply), nullptr);
    std::istringstream lines(result(reply)->jsonData);
    std::string pid, group, environment;
    lines >> pid >> group >> std::ws;
    std::getline(lines, environment);
    std::map<int, std::string> fds;
    for (int fd = 0; lines >> fd;) std::getline(lines >> std::ws, fds[fd]);
    EXPECT_EQ(environment, "PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C ");
    EXPECT_EQ(group, pid);  // a process group of its own
    EXPECT_EQ(fds[0], "/dev/null");
    EXPECT_EQ(fds[1].rfind("pipe:", 0), 0U) << fds[1];
    EXPECT_EQ(fds[2].rfind("pipe:", 0), 0U) << fds[2];
    for (const auto& [fd, target] : fds) {  // beyond 0 to 2, only the script the shell keeps open
        EXPECT_TRUE(fd <= 2 || target == script) << fd << " -> " << target;
    }
}

// The command's environment in a language, whatever this machine's locale says, with `more` added.
Environment in(const std::string& language, const Environment& more = {}) {
    Environment environment{{"LANGUAGE", language},
                            {"LC_ALL", std::nullopt},
                            {"LC_MESSAGES", std::nullopt},
                            {"LANG", "en_US.UTF-8"},
                            {"VANTORIX_LOG", "off"}};
    for (const auto& [name, value] : more) environment[name] = value;
    return environment;
}

testing::ProcessResult smart(const std::vector<std::string>& args, const Environment& environment = in("en_US")) {
    std::vector<std::string> argv{VANTORIX_CLI_PATH, "smart"};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, environment);
}

// Only a regular file of at most 64 MiB is read; whatever else is named, the message says why not.
// A model name from a drive's firmware or a saved file cannot drive the terminal: the text output
// shows its control characters as escapes, the JSON output escapes them as JSON does, and a byte
// that is not UTF-8 (a broken USB bridge's) becomes U+FFFD.
TEST(SmartCli, SavedOutputsAreReadOnlyFromRegularFilesAndNeverDriveTheTerminal) {
    const testing::TemporaryFolder folder;
    const fs::path& dir = folder.path();
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
        {dir / "huge.json",
         cannotRead(dir / "huge.json", "It is larger than 64 MiB, too large for a saved smartctl output")},
    };
    for (const auto& [path, error] : cases) {
        const auto result = smart({"--json-file", path});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.err, error);
    }
    const auto empty = smart({"--json-file", dir / "empty.json", "--json"});
    EXPECT_EQ(nlohmann::json::parse(empty.out)["error"]["code"], "noUsableData");

    std::string saved = fileContents(testing::kHelperFixture);
    const std::string model = R"("INTEL SSDPEKNW010T8")";
    saved.replace(saved.find(model), model.size(),
                  "\"\xff\\u001b[2J\\u001b[31mEVIL\\u0007\\nFAKE ROW  ok\\r\\u009b\\u007f\"");
    std::ofstream(dir / "evil.json") << saved;
    // A byte that drives a terminal: a C0 control but the newline, DEL, or a C1 control in UTF-8.
    const std::regex raw("[\\x00-\\x09\\x0b-\\x1f\\x7f]|\\xc2[\\x80-\\x9f]");
    const auto human = smart({"--json-file", dir / "evil.json"});
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_FALSE(std::regex_search(human.out, raw)) << human.out;
    EXPECT_THAT(human.out, HasSubstr("  \uFFFD\\e[2J\\e[31mEVIL\\x07\\nFAKE ROW  ok\\r\\u009b\\x7f\n"));
    const auto json = smart({"--json-file", dir / "evil.json", "--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_FALSE(std::regex_search(json.out, raw)) << json.out;
    EXPECT_EQ(nlohmann::json::parse(json.out)["details"][1]["value"],
              "\uFFFD\x1b[2J\x1b[31mEVIL\a\nFAKE ROW  ok\r\xc2\x9b\x7f");
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
    const Environment notRoot{{"VANTORIX_HELPER_SOCKET", impostor.path()}};
    const std::vector<std::tuple<Environment, std::vector<std::string>, std::string>> cases = {
        {in("en_US", nobody),
         {"/"},
         "Enable Permissions: No Vantorix SMART helper running as root answers at /nonexistent/helper.sock "
         "(VANTORIX_HELPER_SOCKET). Start it there as root, then please restart Vantorix.\n"},
        {in("zh_CN:en", nobody),
         {"/"},
         "需要启用后台权限：/nonexistent/helper.sock（VANTORIX_HELPER_SOCKET）处没有以 root 身份运行的"},
        {in("en_US", {{"VANTORIX_DISABLE_PRIVILEGED_OPERATIONS", "1"}}),
         {"/"},
         "Privileged operations are disabled here (Manual override: VANTORIX_DISABLE_PRIVILEGED_OPERATIONS), so SMART "
         "data cannot be read.\n"},
        {in("en_US", closes), {"/"}, ": it closed the connection before answering (VANTORIX_LOG=debug shows why)"},
        {in("zh_CN:en", closes), {"/"}, "的 SMART 数据：它在应答之前关闭了连接"},
        {in("en_US", closes), {"/", "--watch"}, ": it closed the connection before answering"},
        {in("en_US", notRoot), {"/"}, "No Vantorix SMART helper running as root answers at " + impostor.path()},
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
    const auto json = smart({"/", "--json"}, in("en_US", closes));
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
    const Environment standalone = in("en_US", {{"VANTORIX_HELPER_SOCKET", std::nullopt}});
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

// What the helper's side does decides how a request ends: a helper that never answers costs the
// time-out, one that closes the connection fails the request as soon as it does. Either way the
// connection is dropped and each request makes a fresh one.
TEST(SmartPipelineIntegration, EachRequestEndsAsTheHelpersSideDecides) {
    if (::geteuid() != 0) GTEST_SKIP() << "the helper's peer check needs root";
    const std::pair<HelperSocketStandIn::Behaviour, HelperRequestFailure> cases[] = {
        {HelperSocketStandIn::Behaviour::neverAnswer, HelperRequestFailure::timedOut},
        {HelperSocketStandIn::Behaviour::closeAtOnce, HelperRequestFailure::brokenStream}};
    for (const auto& [behaviour, failure] : cases) {
        SCOPED_TRACE(static_cast<int>(behaviour));
        HelperSocketStandIn helper(behaviour, 0);
        // The SMART fetch as the programs put it together.
        const auto pipeline = SmartPipeline::over(std::make_shared<ExternalHelperService>(helper.path()),
                                                  std::make_shared<ManualMainExecutor>());
        for (int round = 1; round <= 2; ++round) {
            const auto run = pipeline.client->fetchSmartData("sda");
            ASSERT_FALSE(run.ok());
            EXPECT_EQ(run.error(), failure);
        }
        // One look by the helper manager (does a root helper listen?), then one connection per
        // request, each sent its request where it is read.
        const bool reads = behaviour == HelperSocketStandIn::Behaviour::neverAnswer;
        const auto counts = helper.waitFor([&](const auto& c) { return c.connections >= 3 && (c.bytes > 0) == reads; },
                                           10s);
        EXPECT_EQ(counts.connections, 3U);
        EXPECT_EQ(counts.bytes > 0, reads);
    }
}

TEST(SmartPipelineIntegration, NothingIsSentToAListenerThatIsNotRoot) {
    if (::geteuid() != 0) GTEST_SKIP() << "the peer check needs root";
    HelperSocketStandIn impostor(HelperSocketStandIn::Behaviour::neverAnswer, 65534);
    auto connection = UnixSocketHelperConnection::create(impostor.path());
    std::promise<HelperConnection::FetchAnswer> answered;
    std::atomic<bool> invalidated{false};
    connection->setInvalidationHandler([&] { invalidated = true; });
    connection->fetchSmartData("sda",
                               [&](HelperConnection::FetchAnswer answer) { answered.set_value(std::move(answer)); });
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
