#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/Log.h"
#include "monitor/StatisticsSession.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "../platform/SysfsTestSupport.h"
#include "support/ScopedEnvironment.h"
#include "support/ScriptedBlockDevices.h"

namespace vantorix {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

BlockStatistics written(std::uint64_t sectors) {
    BlockStatistics statistics;
    statistics.sectorsWritten = sectors;
    return statistics;
}

// The stat file is opened once; a reading that fails opens it again once (a device that went away
// and came back under the same name answers again), and only a second failure ends the session.
TEST(StatisticsSession, ReadsOneKeptFileAndOpensItAgainOnceAfterAFailure) {
    testing::ScopedLanguage english("en_US.UTF-8");
    auto devices = std::make_shared<testing::ScriptedBlockDevices>();
    std::uint64_t sectors = 0;
    devices->add("sdb", [&] { return written(++sectors); });
    auto session = StatisticsSession::create(devices, "sdb");
    ASSERT_TRUE(session.ok());
    for (std::uint64_t i = 1; i <= 3; ++i) EXPECT_EQ(session.value()->snapshot()->bytesWritten(), i * 512);
    EXPECT_EQ(devices->opens("sdb"), 1);

    // Unplugged and plugged in again.
    devices->remove("sdb");
    devices->add("sdb", [] { return written(7); });
    {
        log::Capture capture;
        EXPECT_EQ(session.value()->snapshot()->sectorsWritten, 7u);
        EXPECT_THAT(capture.messages("BlockStatistics", log::Level::notice),
                    ElementsAre(HasSubstr("Reading the counters of block device sdb failed")));
    }
    EXPECT_EQ(devices->opens("sdb"), 1);

    // Unplugged for good.
    devices->remove("sdb");
    {
        log::Capture capture;
        const auto gone = session.value()->snapshot();
        ASSERT_FALSE(gone.ok());
        EXPECT_EQ(gone.error(), MonitorError::statisticsUnavailable());
        EXPECT_THAT(capture.messages("BlockStatistics", log::Level::error),
                    ElementsAre(HasSubstr("The counters of block device sdb are unavailable")));
    }
    devices->add("sdb", [] { return written(9); });
    session.value()->end();
    EXPECT_EQ(session.value()->snapshot().error(), MonitorError::monitorStopped());
}

TEST(StatisticsSession, ADeviceThatCannotBeReadFailsAtTheStartWithWhatWentWrong) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const testing::TreeCopy tree("loop");
    const std::string stat = "devices/virtual/block/loop0/stat";
    auto devices = std::make_shared<SysfsBlockDevices>(tree.root());
    EXPECT_EQ(StatisticsSession::create(devices, "loop9").error(), MonitorError::statisticsUnavailable());

    std::filesystem::remove(tree / stat);
    std::filesystem::create_directory(tree / stat);
    const auto failed = StatisticsSession::create(devices, "loop0");
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().code(), MonitorError::Code::sysfsReadFailed);
    EXPECT_EQ(failed.error().description(), "Reading the block device's sysfs entry failed: " +
                                                (tree.root() / "class/block/loop0/stat").native() + ": malformed.");
    EXPECT_EQ(failed.error().name(), std::string("sysfsReadFailed"));
}

}  // namespace
}  // namespace vantorix
