#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "monitor/StatisticsSession.h"
#include "platform/linux/LinuxVolumeInfoSource.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "support/BlockDevice.h"
#include "support/LoopVolume.h"
#include "support/Process.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

using testing::LoopVolume;
using testing::runProcess;
using testing::runShell;
using json = nlohmann::json;

const std::map<std::string, std::optional<std::string>> kEnglish{
    {"LANGUAGE", std::nullopt}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt}, {"LANG", "en_US.UTF-8"}};
const std::map<std::string, std::optional<std::string>> kChinese{
    {"LANGUAGE", "zh_CN:en"}, {"LC_ALL", std::nullopt}, {"LC_MESSAGES", std::nullopt}, {"LANG", "en_US.UTF-8"}};

testing::ProcessResult cli(const std::vector<std::string>& args,
                           const std::map<std::string, std::optional<std::string>>& env = kEnglish) {
    std::vector<std::string> argv{VANTORIX_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProcess(argv, env);
}

using testing::deviceCounters;

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

TEST(VolumeInfoIntegration, RootAgreesWithDfFindmntAndTheDeviceCounters) {
    const auto findmnt = runShell("findmnt -n -o SOURCE,FSTYPE -T /");
    const auto df = runShell("df -B1 --output=size,avail / | tail -n1");
    ASSERT_EQ(findmnt.exitStatus, 0) << findmnt.err;
    ASSERT_EQ(df.exitStatus, 0) << df.err;
    std::istringstream mnt(findmnt.out), space(df.out);
    std::string source, type;
    std::uint64_t size = 0, avail = 0;
    mnt >> source >> type;
    space >> size >> avail;
    const std::string deviceName = source.substr(source.rfind('/') + 1);
    std::string upperType = type;
    for (auto& c : upperType) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

    const bool isBlock = std::filesystem::exists("/sys/class/block/" + deviceName + "/stat");
    const auto before = isBlock ? deviceCounters(deviceName) : std::array<std::uint64_t, 4>{};
    const auto run = cli({"info", "/", "--json"});
    const auto after = isBlock ? deviceCounters(deviceName) : std::array<std::uint64_t, 4>{};
    const auto info = json::parse(run.out);

    EXPECT_EQ(info["device"], deviceName);
    EXPECT_EQ(info["fileSystemDescription"], upperType);
    EXPECT_EQ(info["url"], "/");
    // Free space moves while the system runs: allow a little drift between the two readings.
    EXPECT_EQ(info["totalCapacityBytes"].get<std::uint64_t>(), size);
    EXPECT_NEAR(static_cast<double>(info["availableCapacityBytes"].get<std::uint64_t>()), static_cast<double>(avail),
                64.0 * 1024 * 1024);
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

class LoopVolumeTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto reason = LoopVolume::unavailableReason();
        if (!reason.empty()) GTEST_SKIP() << "loop-device test skipped: " << reason;
        std::string error;
        volume_ = LoopVolume::create("VTXTEST", 96ull * 1024 * 1024, &error);
        ASSERT_TRUE(volume_) << error;
    }
    std::unique_ptr<LoopVolume> volume_;
};

TEST_F(LoopVolumeTest, InfoOnASubfolderDescribesTheLoopVolume) {
    const auto sub = volume_->mountPoint() + "/projects/a";
    std::filesystem::create_directories(sub);
    struct statvfs vfs {};
    ASSERT_EQ(::statvfs(sub.c_str(), &vfs), 0);

    const auto run = cli({"info", sub, "--json"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    const auto info = json::parse(run.out);
    EXPECT_EQ(info["displayName"], "VTXTEST");
    EXPECT_EQ(info["device"], volume_->deviceName());
    EXPECT_EQ(info["url"], sub);
    EXPECT_EQ(info["fileSystemDescription"], "EXT4");
    EXPECT_EQ(info["totalCapacityBytes"].get<std::uint64_t>(), std::uint64_t{vfs.f_blocks} * vfs.f_frsize);
    EXPECT_EQ(info["availableCapacityBytes"].get<std::uint64_t>(), std::uint64_t{vfs.f_bavail} * vfs.f_frsize);
    EXPECT_EQ(info["connectionTypeDescription"], "Virtual Interface");
    EXPECT_TRUE(info.contains("linkCeiling"));
    EXPECT_TRUE(info["linkCeiling"].is_null());  // a loop device has no link
    EXPECT_TRUE(info["statistics"].is_object());

    // The human form in Chinese carries the same facts.
    const auto human = cli({"info", sub}, kChinese);
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_NE(human.out.find("VTXTEST"), std::string::npos);
    EXPECT_NE(human.out.find("文件系统"), std::string::npos);
    EXPECT_NE(human.out.find(volume_->deviceName()), std::string::npos);
}

TEST_F(LoopVolumeTest, DirectWritesRaiseTheWriteCounterBySixteenMebibytes) {
    auto devices = std::make_shared<SysfsBlockDevices>();
    LinuxVolumeInfoSource files;
    auto descriptor = DiskVolumeResolver::resolve(volume_->mountPoint(), files, *devices);
    ASSERT_TRUE(descriptor.ok());
    auto session = StatisticsSession::create(devices, descriptor->deviceName);
    ASSERT_TRUE(session.ok()) << session.error().description();
    const auto before = session.value()->snapshot();
    ASSERT_TRUE(before.ok());

    ASSERT_TRUE(testing::writeDirect(volume_->mountPoint() + "/direct.bin", 16));

    const auto after = session.value()->snapshot();
    ASSERT_TRUE(after.ok());
    EXPECT_GE(after.value().bytesWritten() - before.value().bytesWritten(), 16u << 20);
    EXPECT_GE(after.value().writesCompleted - before.value().writesCompleted, 1u);
    // The session reads the loop device's own counters, which the CLI shows too.
    const auto run = cli({"info", volume_->mountPoint(), "--json"});
    const auto stat = deviceCounters(volume_->deviceName());
    EXPECT_LE(json::parse(run.out)["statistics"]["bytesWritten"].get<std::uint64_t>(), stat[1]);
    EXPECT_GE(json::parse(run.out)["statistics"]["bytesWritten"].get<std::uint64_t>(), after.value().bytesWritten());
}

TEST(VolumeInfoIntegration, VolumesWithoutABlockDeviceResolveButHaveNoStatistics) {
    std::vector<std::string> paths{"/proc", "/dev/shm"};
    std::string overlay;
    if (::geteuid() == 0) {
        char pattern[] = "/tmp/vantorix-ovl-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        overlay = pattern;
        for (const char* sub : {"/lower", "/upper", "/work", "/merged"}) std::filesystem::create_directory(overlay + sub);
        if (runShell("mount -t overlay overlay -o lowerdir=" + overlay + "/lower,upperdir=" + overlay +
                     "/upper,workdir=" + overlay + "/work " + overlay + "/merged")
                .exitStatus == 0) {
            paths.push_back(overlay + "/merged");
        }
    }
    for (const auto& path : paths) {
        SCOPED_TRACE(path);
        const auto run = cli({"info", path, "--json"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(firstLine(run.err), "Unable to fetch statistics for the selected volume.");
        const auto info = json::parse(run.out);
        EXPECT_TRUE(info["statistics"].is_null());
        EXPECT_EQ(info["error"]["code"], "statisticsUnavailable");
        EXPECT_FALSE(info["device"].get<std::string>().empty());
    }
    if (!overlay.empty()) {
        runShell("umount " + overlay + "/merged 2>/dev/null");
        std::filesystem::remove_all(overlay);
    }
}

}  // namespace
}  // namespace vantorix
