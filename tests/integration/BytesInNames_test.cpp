#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "support/LoopVolume.h"
#include "support/Process.h"
#include "text/Utf8.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using json = nlohmann::json;
using Environment = std::map<std::string, std::optional<std::string>>;

// English, no SMART helper to ask (nothing listens there), no log lines in the way.
const Environment kEnvironment{{"LANGUAGE", "en_US"},
                               {"LC_ALL", std::nullopt},
                               {"VANTORIX_LOG", "off"},
                               {"VANTORIX_HELPER_SOCKET", "/nonexistent/vantorix.sock"}};
const std::string kLabel = "Bad\xff\xfeName";
const std::string kShownLabel = "Bad\uFFFD\uFFFDName";

std::string contentsOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A volume whose label, mount point and folders are bytes that are not UTF-8: every command's
// output stays valid JSON or valid metrics, with U+FFFD where those bytes were.
class BytesInNames : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = testing::LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
        std::string error;
        volume_ = testing::LoopVolume::create(kLabel, 64ull << 20, &error, "mnt\xff");
        ASSERT_TRUE(volume_) << error;
        folder_ = volume_->mountPoint() + "/dir\xfe\xff";
        fs::create_directories(folder_);
        // A saved smartctl output whose model name holds a byte a broken USB bridge might send.
        std::string saved = contentsOf(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme.json");
        const std::string model = "\"model_name\": \"INTEL ";
        saved.insert(saved.find(model) + model.size(), "\xff");
        smartFile_ = folder_ + "/smart\xff.json";
        std::ofstream(smartFile_, std::ios::binary) << saved;
    }

    static testing::ProcessResult cli(const std::vector<std::string>& args) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        return testing::runProcess(argv, kEnvironment);
    }

    std::unique_ptr<testing::LoopVolume> volume_;
    std::string folder_;
    std::string smartFile_;
};

TEST_F(BytesInNames, EveryCommandWritesValidTextWithReplacementCharacters) {
    const std::string shownFolder = text::lossyUtf8(folder_);
    const std::string shownMountPoint = text::lossyUtf8(volume_->mountPoint());
    ASSERT_NE(shownFolder, folder_);

    struct Case {
        std::vector<std::string> args;
        bool stream;  // one object per line, the last one the summary
        std::vector<std::pair<std::string, std::string>> expected;  // JSON pointer, value
    };
    const std::vector<Case> cases = {
        {{"info", folder_, "--json"}, false, {{"/displayName", kShownLabel}, {"/url", shownFolder}}},
        {{"monitor", folder_, "--duration", "2", "--json"},
         true,
         {{"/summary/displayName", kShownLabel}, {"/summary/url", shownFolder}}},
        {{"bench", folder_, "--payload-bytes", "8388608", "--random-seconds", "0.2", "--json"},
         false,
         {{"/volume/displayName", kShownLabel}, {"/volume/url", shownFolder}}},
        {{"smart", "--json-file", smartFile_, "--json"}, false, {{"/details/1/value", "INTEL \uFFFDSSDPEKNW010T8"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.front());
        const auto run = cli(c.args);
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        // Parsing refuses text that is not UTF-8; standard output holds nothing but JSON.
        json document;
        if (c.stream) {
            std::istringstream lines(run.out);
            std::size_t count = 0;
            for (std::string line; std::getline(lines, line); ++count) ASSERT_NO_THROW(document = json::parse(line)) << line;
            EXPECT_GE(count, 2u);
        } else {
            ASSERT_NO_THROW(document = json::parse(run.out)) << run.out;
        }
        for (const auto& [pointer, value] : c.expected) EXPECT_EQ(document.at(json::json_pointer(pointer)), value) << pointer;
        std::cout << c.args.front() << ": " << document.at(json::json_pointer(c.expected.front().first)).dump() << '\n';
    }

    // The exporter labels the volume's series with its mount point, whatever folder it was given.
    const int port = testing::freeLoopbackPort();
    auto serve = testing::RunningProcess::start({VANTORIX_CLI_PATH, "serve", "--listen", "127.0.0.1:" + std::to_string(port),
                                                 "--precision", "100", "--volume", folder_},
                                                kEnvironment);
    ASSERT_TRUE(serve);
    httplib::Client client("127.0.0.1", port);
    client.set_connection_timeout(5);
    client.set_read_timeout(10);
    auto metrics = client.Get("/metrics");
    for (const auto deadline = std::chrono::steady_clock::now() + 20s; !metrics && std::chrono::steady_clock::now() < deadline;) {
        std::this_thread::sleep_for(100ms);
        metrics = client.Get("/metrics");
    }
    ASSERT_TRUE(metrics) << serve->standardError();
    EXPECT_EQ(metrics->status, 200);
    const std::string series = "vantorix_volume_written_bytes_total{device=\"" + volume_->deviceName() +
                               "\",mountpoint=\"" + shownMountPoint + "\"} ";
    const auto found = metrics->body.find("\n" + series);
    EXPECT_NE(found, std::string::npos) << metrics->body;
    EXPECT_TRUE(text::isValidUtf8(metrics->body));
    if (found != std::string::npos) std::cout << "serve: " << metrics->body.substr(found + 1, metrics->body.find('\n', found + 1) - found - 1) << '\n';
    serve->signal(SIGTERM);
    EXPECT_EQ(serve->waitForExit(20s), 128 + SIGTERM);
    EXPECT_NE(serve->standardError().find("Exporting the metrics of 1 volume at"), std::string::npos) << serve->standardError();

    if (!fs::exists("/usr/bin/promtool")) GTEST_SKIP() << "promtool is not installed (scripts/setup installs prometheus)";
    char metricsPath[] = "/tmp/vantorix-bytes-metrics-XXXXXX";
    const int fd = ::mkstemp(metricsPath);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::ofstream(metricsPath, std::ios::binary) << metrics->body;
    const auto check = testing::runShell(std::string("promtool check metrics < ") + metricsPath);
    ::unlink(metricsPath);
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
}

}  // namespace
}  // namespace vantorix
