#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/Process.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using testing::runProcess;

const std::map<std::string, std::optional<std::string>> kEnglish{
    {"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt}, {"LANG", "en_US.UTF-8"}};

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::uint32_t bigEndian(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = (value << 8U) | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

// Monitors the root volume, which needs no loop device, and exports the chart at the end.
class ChartExportCli : public ::testing::Test {
protected:
    void SetUp() override {
        const auto findmnt = testing::runShell("findmnt -n -o SOURCE -T /");
        const std::string source = findmnt.out.substr(0, findmnt.out.find('\n'));
        if (!fs::exists("/sys/class/block/" + source.substr(source.rfind('/') + 1) + "/stat"))
            GTEST_SKIP() << "/ is on " << source << ", not a block device: nothing to monitor";
        dir_ = fs::temp_directory_path() / ("vantorix-cli-export-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override {
        if (!dir_.empty()) fs::remove_all(dir_);
    }

    testing::ProcessResult monitor(const std::vector<std::string>& extra) {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "monitor", "/", "--precision", "10"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return runProcess(argv, kEnglish);
    }

    fs::path dir_;
};

TEST_F(ChartExportCli, WritesTheCsvAndThePngBesideItAndSaysWhere) {
    const std::string csv = (dir_ / "run.csv").string(), png = (dir_ / "run.png").string();
    const auto run = monitor({"--duration", "1.2", "--csv", csv});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_NE(run.out.find("CSV saved to: " + csv + "\nPNG saved to: " + png + "\n"), std::string::npos) << run.out;

    const std::string text = contents(csv);
    EXPECT_EQ(text.substr(0, text.find('\n')),
              "timestamp,elapsed_seconds,read_bytes,write_bytes,read_bytes_per_sec,write_bytes_per_sec");
    EXPECT_GE(std::count(text.begin(), text.end(), '\n'), 100);  // a line for each of about 120 samples
    EXPECT_NE(text.find("\n20"), std::string::npos);              // rows start with the year

    const std::string picture = contents(png);
    ASSERT_GT(picture.size(), 24u);
    EXPECT_EQ(picture.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(bigEndian(picture, 16), 3840u);
    EXPECT_EQ(bigEndian(picture, 20), 2160u);
}

TEST_F(ChartExportCli, FailuresAreReportedWithExitStatusOne) {
    const std::string missing = (dir_ / "missing" / "run.csv").string();
    const auto unwritable = monitor({"--duration", "0.3", "--csv", missing});
    EXPECT_EQ(unwritable.exitStatus, 1);
    EXPECT_NE(unwritable.err.find("Export failed: Could not write the file “" + missing + "”"), std::string::npos)
        << unwritable.err;

    const auto tooShort = runProcess({VANTORIX_CLI_PATH, "monitor", "/", "--duration", "0.01", "--csv",
                                      (dir_ / "short.csv").string()},
                                     kEnglish);
    EXPECT_EQ(tooShort.exitStatus, 1);
    EXPECT_NE(tooShort.err.find("Fewer than 2 samples: the chart was not exported."), std::string::npos)
        << tooShort.err;
    EXPECT_FALSE(fs::exists(dir_ / "short.csv"));
}

// What is not a regular file is never opened for writing and waited on: refused before monitoring
// starts, or, when it appeared meanwhile, when the export comes.
TEST_F(ChartExportCli, ANamedPipeOrDeviceIsRefusedAtOnce) {
    const std::string fifo = (dir_ / "fifo.csv").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::string, std::string> refused[] = {{fifo, "named pipe (FIFO)"}, {"/dev/null", "character device"}};
    for (const auto& [path, kind] : refused) {
        const auto run = monitor({"--duration", "60", "--csv", path});
        EXPECT_EQ(run.exitStatus, 2);
        EXPECT_EQ(run.err.substr(0, run.err.find('\n')), "--csv: Cannot write to " + path + ". It is a " + kind + ", not a regular file.");
    }

    const std::string later = (dir_ / "later.csv").string();
    auto running = testing::RunningProcess::start(
        {VANTORIX_CLI_PATH, "monitor", "/", "--precision", "10", "--duration", "2", "--json", "--csv", later}, kEnglish);
    ASSERT_TRUE(running->readLine(std::chrono::seconds(20)));
    ASSERT_EQ(::mkfifo(later.c_str(), 0600), 0);
    EXPECT_EQ(running->waitForExit(std::chrono::seconds(30)), 1);
    EXPECT_NE(running->standardError().find("Could not write the file “" + later + "”: It is a named pipe (FIFO), not a regular file"),
              std::string::npos)
        << running->standardError();
}

}  // namespace
}  // namespace vantorix
