#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "exporter/Exposition.h"
#include "exporter/SmartHealth.h"

namespace vantorix::exporter {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

Exposition sampleExposition() {
    Exposition e;
    e.samplingIntervalSeconds = 0.01;
    VolumeFigures v;
    // A mount point's bytes need not be UTF-8; label values must be.
    v.labels = {"loop3",        "/mnt/a \"b\"\\c\xff", "EXT4", "Virtual", "", "Linux",
                "Loop\ndevice", "0x5002538e40a22954",  "S3YZ"};
    v.readBytes = 18446744073709551615ULL;  // a counter near its wrap
    v.writtenBytes = 4096;
    v.reads = 7;
    v.writes = 1;
    v.readPeak = 1.5e9;
    v.writePeak = 0;
    for (double rate : {0.0, 3e6, 2.5e6, 2e10}) v.writeHistogram.observe(rate);
    for (double await : {50e-6, 3e-4, 12.0}) v.writeAwaitHistogram.observe(await);
    v.load.writeMilliseconds = 1500;
    v.load.weightedMilliseconds = 5000000001;  // past 2^32 ms
    v.load.inFlight = 3;
    v.load.flushesCompleted = 9;
    v.writeAwaitPeakSeconds = 0.25;  // no read completed: no read series
    v.queueDepthPeak = 0;
    SmartFigures smart;
    smart.drive.identity = {"0x5002538e40a22954", "SSD", "S3YZ", "loop3", {}};
    smart.drive.snapshot.passed = false;
    smart.drive.snapshot[health::Figure::temperature] = 41;
    smart.drive.snapshot[health::Figure::powerOnHours] = 2;
    smart.drive.snapshot[health::Figure::percentageUsed] = 7;
    smart.growth = {{health::Figure::reallocatedSectors, 2, 0, 10, std::nullopt}};
    smart.refreshedAt = 1700000000;
    smart.ageSeconds = 30;
    v.smart = smart;
    e.volumes.push_back(v);
    return e;
}

TEST(Exposition, BothFormatsNameFamiliesAndSamplesAsScrapersExpect) {
    const auto e = sampleExposition();
    const std::string text = render(e, ExpositionFormat::prometheusText);
    const std::string open = render(e, ExpositionFormat::openMetrics);
    const std::string key = R"(device="loop3",mountpoint="/mnt/a \"b\"\\c�")";
    const std::string drive = key + R"(,wwn="0x5002538e40a22954",serial="S3YZ")";
    for (
        const std::string& line : std::vector<std::string>{
            "vantorix_sampling_interval_seconds 0.01", "vantorix_volumes 1",
            R"(vantorix_volume_info{device="loop3",mountpoint="/mnt/a \"b\"\\c�",filesystem="EXT4",connection="Virtual",link_speed="",vendor="Linux",model="Loop\ndevice",wwn="0x5002538e40a22954",serial="S3YZ"} 1)",
            "vantorix_volume_read_bytes_total{" + key + "} 1.8446744073709552e+19",
            "vantorix_volume_written_bytes_total{" + key + "} 4096",
            "vantorix_volume_read_peak_bytes_per_second{" + key + "} 1500000000",
            // Cumulative buckets: 0 falls in the first, 2.5e6 on its bound, 3e6 in 5e6, 2e10 in +Inf.
            "vantorix_volume_interval_throughput_bytes_per_second_bucket{" + key +
                R"(,direction="write",le="1000000"} 1)",
            "vantorix_volume_interval_throughput_bytes_per_second_bucket{" + key +
                R"(,direction="write",le="2500000"} 2)",
            "vantorix_volume_interval_throughput_bytes_per_second_bucket{" + key +
                R"(,direction="write",le="5000000"} 3)",
            "vantorix_volume_interval_throughput_bytes_per_second_bucket{" + key + R"(,direction="write",le="+Inf"} 4)",
            "vantorix_volume_interval_throughput_bytes_per_second_count{" + key + R"(,direction="write"} 4)",
            "vantorix_volume_interval_throughput_bytes_per_second_sum{" + key + R"(,direction="write"} 20005500000)",
            "vantorix_volume_write_time_seconds_total{" + key + "} 1.5",
            "vantorix_volume_io_time_weighted_seconds_total{" + key + "} 5000000.001",
            "vantorix_volume_io_now{" + key + "} 3", "vantorix_volume_flush_requests_total{" + key + "} 9",
            "vantorix_volume_await_peak_seconds{" + key + R"(,direction="write"} 0.25)",
            "vantorix_volume_queue_depth_peak{" + key + "} 0",
            "vantorix_volume_interval_await_seconds_bucket{" + key + R"(,direction="write",le="5e-05"} 1)",
            "vantorix_volume_interval_await_seconds_bucket{" + key + R"(,direction="write",le="0.0005"} 2)",
            "vantorix_volume_interval_await_seconds_bucket{" + key + R"(,direction="write",le="+Inf"} 3)",
            "vantorix_smart_passed{" + drive + "} 0", "vantorix_smart_power_on_seconds{" + drive + "} 7200",
            "vantorix_smart_percentage_used_ratio{" + drive + "} 0.07",
            "vantorix_smart_data_age_seconds{" + drive + "} 30",
            "vantorix_smart_growth_since_baseline{" + drive + R"(,attribute="reallocated_sectors"} 8)"}) {
        EXPECT_THAT(text, HasSubstr("\n" + line + "\n")) << line;
        EXPECT_THAT(open, HasSubstr("\n" + line + "\n")) << line;
    }
    // Figures the drive did not report have no family at all.
    EXPECT_THAT(text, Not(HasSubstr("vantorix_smart_capable")));
    EXPECT_THAT(text, Not(HasSubstr("media_errors")));
    EXPECT_THAT(text, Not(HasSubstr("await_peak_seconds{" + key + R"(,direction="read")")));
    // The metadata differs: OpenMetrics names counter and info families without their suffixes
    // and ends with # EOF.
    EXPECT_THAT(text, HasSubstr("# TYPE vantorix_volume_read_bytes_total counter\n"));
    EXPECT_THAT(text, HasSubstr("# TYPE vantorix_volume_info gauge\n"));
    EXPECT_THAT(open, HasSubstr("# TYPE vantorix_volume_read_bytes counter\n"));
    EXPECT_THAT(open, HasSubstr("# TYPE vantorix_volume info\n"));
    EXPECT_THAT(text, Not(HasSubstr("# EOF")));
    EXPECT_TRUE(open.size() > 6 && open.substr(open.size() - 6) == "# EOF\n");
}

std::string fixture(const std::string& name) {
    std::ifstream file(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/" + name);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// The identity and figures are health::driveReadingFromJson's; the exporter adds the capability.
TEST(SmartHealth, IdentityFiguresAndCapabilityFromRealSmartctlOutputs) {
    struct Case {
        std::string file, wwn, serial;
        std::optional<bool> passed, capable;
        std::optional<double> temperature;
    };
    const std::vector<Case> cases{
        {"scrutiny-smart-ata-full.json", "0x5002538e40a22954", "S3YZNB0KB00864E", true, std::nullopt, 36},
        {"smartctl_exporter-nvme-null-SAMSUNG_MZWLL3T2HAJQ-00005-nvme0.json", "", "REDACTED", false, true, 40},
    };
    for (const auto& c : cases) {
        const auto f = smartFiguresFromJson(fixture(c.file), 1.7e9, "sdz");
        EXPECT_EQ(f.drive.identity.wwn, c.wwn) << c.file;
        EXPECT_EQ(f.drive.identity.serial, c.serial) << c.file;
        EXPECT_EQ(f.drive.snapshot.passed, c.passed) << c.file;
        EXPECT_EQ(f.capable, c.capable) << c.file;
        EXPECT_EQ(f.drive.snapshot[health::Figure::temperature], c.temperature) << c.file;
        EXPECT_EQ(f.refreshedAt, 1.7e9);
    }
    for (const std::string bad : {"", "not json", "[1,2]"}) {
        const auto f = smartFiguresFromJson(bad);
        EXPECT_FALSE(f.drive.snapshot.passed || f.capable || f.drive.identity.known()) << bad;
    }
}

}  // namespace
}  // namespace vantorix::exporter
