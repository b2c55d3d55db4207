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

const testing::Environment kEnglish{{"LANGUAGE", "en_US"}, {"LC_ALL", std::nullopt}};

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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
    fs::path dir_;
};

TEST_F(ChartExportCli, WritesTheCsvAndThePngBesideItAndSaysWhere) {
    const std::string csv = (dir_ / "run.csv").string(), png = (dir_ / "run.png").string();
    const auto run = runProcess({VANTORIX_CLI_PATH, "monitor", "/", "--precision", "10", "--duration", "1.2", "--csv", csv},
                                kEnglish);
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_NE(run.out.find("CSV saved to: " + csv + "\nPNG saved to: " + png + "\n"), std::string::npos) << run.out;
    const std::string text = contents(csv);
    EXPECT_EQ(text.substr(0, text.find('\n')),
              "timestamp,elapsed_seconds,read_bytes,write_bytes,read_bytes_per_sec,write_bytes_per_sec");
    // A line for each sample: about 120, fewer when a loaded machine delays the sampling timer.
    EXPECT_GE(std::count(text.begin(), text.end(), '\n'), 50);
    // A PNG of 3840 × 2160: its signature, then the width and height of its header, big-endian.
    EXPECT_EQ(contents(png).substr(0, 24), std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x0f\x00\0\0\x08\x70", 24));
}

// A failure is reported with exit status 1; what is not a regular file is never opened for writing
// and waited on: refused before monitoring starts (status 2), or, when it appeared meanwhile, when
// the export comes.
TEST_F(ChartExportCli, FailuresAreReportedAndWhatIsNoRegularFileIsRefusedAtOnce) {
    const std::string missing = (dir_ / "missing" / "run.csv").string(), fifo = (dir_ / "fifo.csv").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::tuple<std::string, std::string, int, std::string>> cases = {
        {missing, "10", 1, "Export failed: Could not write the file “" + missing + "”"},
        {(dir_ / "short.csv").string(), "1000", 1, "Fewer than 2 samples: the chart was not exported."},
        {fifo, "10", 2, "--csv: Cannot write to " + fifo + ". It is a named pipe (FIFO), not a regular file.\n"},
        {"/dev/null", "10", 2, "--csv: Cannot write to /dev/null. It is a character device, not a regular file.\n"},
    };
    for (const auto& [csv, precision, status, message] : cases) {
        const auto run = runProcess(
            {VANTORIX_CLI_PATH, "monitor", "/", "--precision", precision, "--duration", "0.3", "--csv", csv}, kEnglish);
        EXPECT_EQ(run.exitStatus, status);
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    }
    EXPECT_FALSE(fs::exists(dir_ / "short.csv"));

    const std::string later = (dir_ / "later.csv").string();
    auto running = testing::RunningProcess::start(
        {VANTORIX_CLI_PATH, "monitor", "/", "--precision", "10", "--duration", "2", "--json", "--csv", later}, kEnglish);
    ASSERT_TRUE(running->readLine(std::chrono::seconds(20)));
    ASSERT_EQ(::mkfifo(later.c_str(), 0600), 0);
    EXPECT_EQ(running->waitForExit(std::chrono::seconds(30)), 1);
    EXPECT_NE(running->standardError().find("“" + later + "”: It is a named pipe (FIFO), not a regular file"), std::string::npos)
        << running->standardError();
}

}  // namespace
}  // namespace vantorix
