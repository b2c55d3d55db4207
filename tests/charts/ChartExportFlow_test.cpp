#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "charts/ChartExportSupport.h"
#include "charts/SampleFixtures.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using testing::samplesOf;
using testing::ScopedEnvironment;
using testing::ScopedLanguage;
using Support = ChartExportSupport;
using PNGResult = Result<std::vector<std::uint8_t>, ChartDataExportError>;

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class ChartExportFlow : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("vantorix-export-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // A renderer that hands out fixed bytes and counts its calls.
    Support::PNGRenderer renderer(std::optional<ChartDataExportError> failure = std::nullopt) {
        return [this, failure](const SampleWindow& samples, std::int64_t intervalMs) -> PNGResult {
            ++renders_;
            EXPECT_EQ(intervalMs, 100);
            if (failure) return Failure{*failure};
            return std::vector<std::uint8_t>{0x89, 'P', 'N', 'G', static_cast<std::uint8_t>(samples.size())};
        };
    }

    fs::path dir_;
    int renders_ = 0;
    const SampleWindow two_ = samplesOf({{1, 2}, {3, 4}});
    const ScopedLanguage english_{"en_US.UTF-8"};
};

TEST_F(ChartExportFlow, NamesThePngAfterTheCsv) {
    const std::pair<std::string, std::string> cases[] = {
        {"run.csv", "run.png"}, {"run", "run.png"}, {"/data/v1.2/run", "/data/v1.2/run.png"},
        {"/tmp/a.b.csv", "/tmp/a.b.png"}, {"/tmp/.csv", "/tmp/.csv.png"},
    };
    for (const auto& [csv, png] : cases) EXPECT_EQ(Support::pngPath(csv), png) << csv;

    const ScopedEnvironment zone{{"TZ", "Asia/Shanghai"}};
    const auto time = std::chrono::sys_days(std::chrono::year(2025) / 3 / 1) + std::chrono::hours(20);
    EXPECT_EQ(Support::suggestedFileName(time), "Vantorix-20250302-040000.csv");
}

TEST_F(ChartExportFlow, WritesBothFilesAndSaysWhere) {
    const std::string csv = (dir_ / "run.csv").string();
    std::ofstream(dir_ / "run.png") << "an older picture that is replaced";
    const auto outcome = Support::exportChart(two_, 100, csv, renderer());
    const std::string png = (dir_ / "run.png").string();
    EXPECT_EQ(outcome, (Support::Outcome{true, "CSV saved to: " + csv + "\nPNG saved to: " + png}));
    EXPECT_EQ(contents(csv), Support::csvText(two_, 100));
    EXPECT_EQ(contents(png), std::string("\x89PNG\x02", 5));

    const ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(Support::exportChart(two_, 100, csv, renderer())->text, "CSV 已保存至：" + csv + "\nPNG 已保存至：" + png);
}

TEST_F(ChartExportFlow, FewerThanTwoSamplesDoNothing) {
    const std::string csv = (dir_ / "one.csv").string();
    EXPECT_EQ(Support::exportChart(samplesOf({{1, 1}}), 100, csv, renderer()), std::nullopt);
    EXPECT_EQ(renders_, 0);
    EXPECT_FALSE(fs::exists(csv));
}

TEST_F(ChartExportFlow, AFailureStopsTheFlowWhereItHappens) {
    // The picture is made first: when that fails, no file is written.
    const std::string csv = (dir_ / "run.csv").string();
    EXPECT_EQ(Support::exportChart(two_, 100, csv, renderer(ChartDataExportError::pngEncodingFailed())),
              (Support::Outcome{false, "Export failed: Failed to encode the chart as a PNG image."}));
    EXPECT_FALSE(fs::exists(csv));

    // The CSV cannot be written: the PNG is not written either.
    const std::string missing = (dir_ / "no-such-folder" / "run.csv").string();
    EXPECT_EQ(Support::exportChart(two_, 100, missing, renderer()),
              (Support::Outcome{false, "Export failed: Could not write the file “" + missing + "”: No such file or directory"}));

    // The PNG cannot be written (a folder has its name): the CSV stays.
    fs::create_directory(dir_ / "blocked.png");
    const std::string blocked = (dir_ / "blocked.csv").string();
    const ScopedLanguage chinese("zh_CN.UTF-8");
    EXPECT_EQ(Support::exportChart(two_, 100, blocked, renderer()),
              (Support::Outcome{false, "导出失败：无法写入文件“" + (dir_ / "blocked.png").string() + "”：Is a directory"}));
    EXPECT_EQ(contents(blocked), Support::csvText(two_, 100));
    EXPECT_EQ(ChartDataExportError::bitmapContextUnavailable().description(), "无法创建用于渲染图表的位图上下文。");
}

}  // namespace
}  // namespace vantorix
