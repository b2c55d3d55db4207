#include <gtest/gtest.h>

#include "log/Log.h"
#include "monitor/StatisticsSession.h"
#include "support/ScriptedBlockDevices.h"

namespace vantorix {
namespace {

BlockStatistics written(std::uint64_t sectors) {
    BlockStatistics statistics;
    statistics.sectorsWritten = sectors;
    return statistics;
}

// The stat file is opened once; a reading that fails opens it again once (a device that went away
// and came back under the same name answers again), and only a second failure ends the session.
TEST(StatisticsSession, ReadsOneKeptFileAndOpensItAgainOnceAfterAFailure) {
    auto devices = std::make_shared<testing::ScriptedBlockDevices>();
    std::uint64_t sectors = 0;
    devices->add("sdb", [&] { return written(++sectors); });
    auto session = StatisticsSession::create(devices, "sdb");
    ASSERT_TRUE(session.ok());
    for (std::uint64_t i = 1; i <= 3; ++i) EXPECT_EQ(session.value()->snapshot()->bytesWritten(), i * 512);
    EXPECT_EQ(devices->opens("sdb"), 1);

    log::Capture capture;
    devices->remove("sdb");  // unplugged and plugged in again
    devices->add("sdb", [] { return written(7); });
    EXPECT_EQ(session.value()->snapshot()->sectorsWritten, 7u);
    EXPECT_EQ(devices->opens("sdb"), 1);
    EXPECT_EQ(capture.messages("BlockStatistics", log::Level::notice).size(), 1u);

    devices->remove("sdb");  // unplugged for good
    EXPECT_EQ(session.value()->snapshot().error(), MonitorError::statisticsUnavailable());
    EXPECT_EQ(capture.messages("BlockStatistics", log::Level::error).size(), 1u);
    devices->add("sdb", [] { return written(9); });
    session.value()->end();
    EXPECT_EQ(session.value()->snapshot().error(), MonitorError::monitorStopped());
}

}  // namespace
}  // namespace vantorix
