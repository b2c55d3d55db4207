#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/linux/SysfsBlockDevices.h"
#include "support/ScopedEnvironment.h"
#include "volumes/DiskVolumeResolver.h"

namespace vantorix {
namespace {

using json = nlohmann::json;

json optionalText(const std::optional<std::string>& value) { return value ? json(*value) : json(nullptr); }

// What people see of every block device in every sysfs tree under tests/data/sysfs: connection type,
// link speed, vendor, model, link ceiling and counters. attachments.jsonl holds the figures as an
// earlier reader of the same trees gave them; reading the trees anew must give the same.
TEST(FixtureAttachments, EveryDeviceOfEveryTreeReadsAsRecorded) {
    testing::ScopedLanguage english("en_US.UTF-8");
    const std::string data = VANTORIX_TEST_DATA_DIR;
    std::ifstream recorded(data + "/sysfs/attachments.jsonl");
    ASSERT_TRUE(recorded) << "attachments.jsonl";
    int rows = 0;
    for (std::string line; std::getline(recorded, line); ++rows) {
        const json expected = json::parse(line);
        const std::string machine = expected["machine"], name = expected["device"];
        SCOPED_TRACE(machine + " " + name);
        SysfsBlockDevices devices(data + "/sysfs/" + machine);
        const auto device = devices.device(name);
        const BlockAttachment attachment = device.ok() ? device->attachment : BlockAttachment{};
        const auto connection = DiskVolumeResolver::connectionMetadata(attachment);
        json actual{{"machine", machine},
                    {"device", name},
                    {"type", connection.type},
                    {"speed", optionalText(connection.speed)},
                    {"vendor", optionalText(connection.vendor)},
                    {"model", optionalText(connection.product)}};
        if (const auto link = DiskVolumeResolver::linkCeiling(attachment)) {
            actual["link"] = linkDescription(*link);
            const auto ceiling = ceilingBytesPerSecond(*link);
            actual["ceiling"] = ceiling ? json(*ceiling) : json(nullptr);
            actual["slowLink"] = slowLinkWarning(*link).has_value();
        } else {
            actual["link"] = nullptr;
        }
        auto file = devices.openStatistics(name);
        if (file.ok()) {
            const auto counters = file.value()->read();
            ASSERT_TRUE(counters.ok()) << counters.error().detail();
            actual["counters"] = {counters->bytesRead(), counters->bytesWritten(), counters->readsCompleted,
                                  counters->writesCompleted};
        } else {
            EXPECT_EQ(file.error().kind, BlockDeviceError::Kind::notFound);
            actual["counters"] = "statisticsUnavailable";
        }
        EXPECT_EQ(actual, expected);
    }
    EXPECT_EQ(rows, 34);
}

}  // namespace
}  // namespace vantorix
