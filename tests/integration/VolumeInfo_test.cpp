#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/BlockDevice.h"
#include "support/LoopVolume.h"
#include "support/Process.h"

namespace vantorix {
namespace {

using testing::LoopVolume;
using testing::runProcess;
using testing::runShell;
using json = nlohmann::json;

testing::ProcessResult cli(const std::vector<std::string>& args, const std::string& language = "en_US") {
    std::vector<std::string> argv{VANTORIX_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProcess(argv, {{"LANGUAGE", language}, {"LC_ALL", std::nullopt}, {"LANG", "en_US.UTF-8"}});
}

// The capacities as statvfs gives them (what df shows).
void expectCapacitiesOf(const std::string& path, const json& info) {
    struct statvfs vfs {};
    ASSERT_EQ(::statvfs(path.c_str(), &vfs), 0);
    EXPECT_EQ(info["totalCapacityBytes"].get<std::uint64_t>(), std::uint64_t{vfs.f_blocks} * vfs.f_frsize);
    // Free space moves while the system runs: allow a little drift between the two readings.
    EXPECT_NEAR(info["availableCapacityBytes"].get<double>(), double(vfs.f_bavail) * double(vfs.f_frsize), 64 << 20);
}

TEST(VolumeInfoIntegration, RootAgreesWithFindmntStatvfsAndTheDeviceCounters) {
    std::istringstream findmnt(runShell("findmnt -n -o SOURCE,FSTYPE -T /").out);
    std::string source, type;
    findmnt >> source >> type;
    const std::string deviceName = source.substr(source.rfind('/') + 1);
    const bool isBlock = std::filesystem::exists("/sys/class/block/" + deviceName + "/stat");
    const auto before = isBlock ? testing::deviceCounters(deviceName) : std::array<std::uint64_t, 4>{};
    const auto run = cli({"info", "/", "--json"});
    const auto after = isBlock ? testing::deviceCounters(deviceName) : std::array<std::uint64_t, 4>{};
    const auto info = json::parse(run.out);
    EXPECT_EQ(info["device"], deviceName);
    std::transform(type.begin(), type.end(), type.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    EXPECT_EQ(info["fileSystemDescription"], type);
    EXPECT_EQ(info["url"], "/");
    expectCapacitiesOf("/", info);
    if (!isBlock) GTEST_SKIP() << "/ is on " << source << ", not a block device: no counters to compare";
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto& stats = info["statistics"];
    const std::array<std::uint64_t, 4> read{stats["bytesRead"], stats["bytesWritten"], stats["readOperations"],
                                            stats["writeOperations"]};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_LE(before[i], read[i]) << i;
        EXPECT_LE(read[i], after[i]) << i;
    }
}

// A volume whose label and folders are bytes that are not UTF-8: the JSON stays valid (parsing
// refuses anything else), with U+FFFD where those bytes were.
TEST(VolumeInfoIntegration, InfoOnASubfolderDescribesTheLoopVolume) {
    if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
    std::string error;
    const auto volume = LoopVolume::create("VTX\xff\xfeTEST", 32ull << 20, &error, "mnt\xff");
    ASSERT_TRUE(volume) << error;
    const auto sub = volume->mountPoint() + "/projects/a\xfe";
    std::filesystem::create_directories(sub);

    const auto run = cli({"info", sub, "--json"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto info = json::parse(run.out);
    EXPECT_EQ(info["displayName"], "VTX\uFFFD\uFFFDTEST");
    EXPECT_EQ(info["device"], volume->deviceName());
    const auto& mountPoint = volume->mountPoint();
    EXPECT_EQ(info["url"], mountPoint.substr(0, mountPoint.size() - 1) + "\uFFFD/projects/a\uFFFD");
    EXPECT_EQ(info["fileSystemDescription"], "EXT4");
    expectCapacitiesOf(sub, info);
    EXPECT_EQ(info["connectionTypeDescription"], "Virtual Interface");
    EXPECT_TRUE(info.contains("linkCeiling") && info["linkCeiling"].is_null());  // a loop device has no link
    EXPECT_TRUE(info["statistics"].is_object());

    // The human form in Chinese carries the same facts.
    const auto human = cli({"info", sub}, "zh_CN:en");
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_NE(human.out.find("TEST"), std::string::npos);
    EXPECT_NE(human.out.find("文件系统"), std::string::npos);
    EXPECT_NE(human.out.find(volume->deviceName()), std::string::npos);
}

TEST(VolumeInfoIntegration, VolumesWithoutABlockDeviceResolveButHaveNoStatistics) {
    for (const std::string path : {"/proc", "/dev/shm"}) {
        SCOPED_TRACE(path);
        const auto run = cli({"info", path, "--json"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.err.substr(0, run.err.find('\n')), "Unable to fetch statistics for the selected volume.");
        const auto info = json::parse(run.out);
        EXPECT_TRUE(info["statistics"].is_null());
        EXPECT_EQ(info["error"]["code"], "statisticsUnavailable");
        EXPECT_FALSE(info["device"].get<std::string>().empty());
    }
}

}  // namespace
}  // namespace vantorix
