#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "composition/SmartPipeline.h"
#include "concurrency/ManualMainExecutor.h"
#include "integration/HelperTestClient.h"
#include "log/Log.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

// The SMART fetch as the programs put it together, pointed at a helper listening at `socketPath`.
SmartPipeline pipelineAt(const std::string& socketPath, const std::shared_ptr<MainExecutor>& main) {
    return SmartPipeline::over(std::make_shared<ExternalHelperServiceManager>(socketPath), main);
}

// A Unix socket listener in a temporary folder that accepts connections and reads what comes,
// but never answers; run as `uid` in a child process, it reports how many bytes it was sent.
class MuteListener {
public:
    explicit MuteListener(uid_t uid) {
        char pattern[] = "/tmp/vantorix-mute-XXXXXX";
        directory_ = ::mkdtemp(pattern);
        ::chmod(directory_.c_str(), 0777);
        path_ = directory_ + "/helper.sock";
        int report[2];
        EXPECT_EQ(::pipe(report), 0);
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(report[0]);
            ::close(ready[0]);
            if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(3);
            const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path_.c_str());
            if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener, 16) != 0) ::_exit(4);
            (void)!::write(ready[1], "r", 1);
            // Counts connections and bytes until the parent closes its end of the report pipe.
            std::uint64_t connections = 0, bytes = 0;
            std::string reported;
            for (;;) {
                pollfd polled[2] = {{listener, POLLIN, 0}, {report[1], POLLERR, 0}};
                if (::poll(polled, 2, 100) < 0 || (polled[1].revents & (POLLERR | POLLHUP)) != 0) break;
                if ((polled[0].revents & POLLIN) != 0) {
                    const int client = ::accept(listener, nullptr, nullptr);
                    ++connections;
                    clients_.push_back(client);
                }
                for (const int client : clients_) {
                    char buffer[4096];
                    const ssize_t n = ::recv(client, buffer, sizeof(buffer), MSG_DONTWAIT);
                    if (n > 0) bytes += static_cast<std::uint64_t>(n);
                }
                const std::string counts = std::to_string(connections) + " " + std::to_string(bytes) + "\n";
                if (counts != reported && ::write(report[1], counts.data(), counts.size()) < 0) break;
                reported = counts;
            }
            ::_exit(0);
        }
        ::close(report[1]);
        ::close(ready[1]);
        char byte = 0;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
        report_ = report[0];
        ::fcntl(report_, F_SETFL, O_NONBLOCK);
    }
    ~MuteListener() {
        ::close(report_);
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        std::filesystem::remove_all(directory_);
    }
    const std::string& path() const { return path_; }
    // Connections accepted and bytes received so far.
    std::pair<std::uint64_t, std::uint64_t> counts() {
        char buffer[4096];
        for (ssize_t n; (n = ::read(report_, buffer, sizeof(buffer))) > 0;) reports_.append(buffer, static_cast<std::size_t>(n));
        std::istringstream lines(reports_);
        std::pair<std::uint64_t, std::uint64_t> result{0, 0};
        for (std::string line; std::getline(lines, line);) std::istringstream(line) >> result.first >> result.second;
        return result;
    }

private:
    std::string directory_, path_;
    pid_t pid_ = -1;
    int report_ = -1;
    std::string reports_;
    std::vector<int> clients_;
};

class SmartPipelineIntegration : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the helper and its peer check need root";
    }
    std::vector<std::string> lines(std::string_view category) const { return capture_.messages(category); }

    testing::ScopedLanguage english_{"en_US.UTF-8"};
    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    log::Capture capture_;
};

TEST_F(SmartPipelineIntegration, RealSmartctlAnswerIsLoggedAndFoundUnusable) {
    std::string error;
    auto daemon = testing::HelperDaemon::start({"/usr/sbin/smartctl", {}}, &error);
    ASSERT_NE(daemon, nullptr) << error;
    const auto pipeline = pipelineAt(daemon->socketPath(), main_);
    const std::string disk = testing::rootDiskName();
    const auto run = pipeline.client->fetchSMARTData(disk);  // the reply's fields: HelperRequests
    ASSERT_TRUE(run.has_value());

    // This machine's virtual disk has no SMART: every candidate is tried, each answer logged.
    EXPECT_FALSE(pipeline.provider->fetch(disk).info.has_value());
    const std::string command = run->commandDescription;
    EXPECT_THAT(lines("SmartmontoolsBridge"),
                Contains(fmt::format("smartctl exited with status {} for BSD name {}; continuing to parse command: {}",
                                     run->terminationStatus, disk, command)));
    EXPECT_THAT(lines("SmartmontoolsBridge"),
                Contains("smartctl JSON for BSD name " + disk + " did not contain usable SMART information"));
    EXPECT_THAT(lines("SMARTInfoProvider"),
                Contains("All smartctl attempts exhausted for BSD name " + disk + "; SMART data unavailable"));
}

TEST_F(SmartPipelineIntegration, AHelperThatNeverAnswersCostsFiveSecondsAndItsConnection) {
    MuteListener mute(0);
    const auto pipeline = pipelineAt(mute.path(), main_);
    for (int round = 1; round <= 2; ++round) {
        const auto start = Clock::now();
        EXPECT_FALSE(pipeline.client->fetchSMARTData("sda").has_value());
        const auto waited = Clock::now() - start;
        EXPECT_GE(waited, 5s);
        EXPECT_LT(waited, 10s);  // a hang guard, not a measurement
    }
    EXPECT_THAT(lines("SmartctlHelperClient"),
                Contains("Timed out waiting for helper response when fetching SMART info for BSD name sda"));
    std::this_thread::sleep_for(300ms);
    const auto [connections, bytes] = mute.counts();
    // One look by the helper manager (is a root helper listening?), then one connection per
    // request: each was dropped at its time-out and made afresh.
    EXPECT_EQ(connections, 3U);
    EXPECT_GT(bytes, 0U);
}

TEST_F(SmartPipelineIntegration, NothingIsSentToAListenerThatIsNotRoot) {
    MuteListener impostor(65534);
    auto connection = UnixSocketHelperConnection::create(impostor.path());
    std::atomic<bool> failed{false};
    std::atomic<bool> invalidated{false};
    std::string description;
    connection->setInvalidationHandler([&] { invalidated = true; });
    connection->fetchSMARTData(
        "sda", [](auto, auto) { ADD_FAILURE() << "no reply expected"; },
        [&](const protocol::HelperError& error) {
            description = error.description;
            failed = true;
        });
    const auto deadline = Clock::now() + 5s;
    while ((!failed || !invalidated) && Clock::now() < deadline) std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(failed);
    EXPECT_TRUE(invalidated);
    EXPECT_THAT(description, HasSubstr("runs as user 65534, not as user 0; nothing was sent to it"));
    std::this_thread::sleep_for(300ms);
    const auto [connections, bytes] = impostor.counts();
    EXPECT_EQ(connections, 1U);
    EXPECT_EQ(bytes, 0U);
    EXPECT_FALSE(helperListensAt(impostor.path()));
}

}  // namespace
}  // namespace vantorix
