#include "smart/SMARTKeyCatalogue.h"
#include "smart/SmartctlJSONInterpreter.h"
#include "smart/SmartmontoolsBridge.h"

#include "services/ServiceTestSupport.h"
#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace vantorix::smart {
namespace {

namespace fs = std::filesystem;

const fs::path kCorpus = fs::path(VANTORIX_TEST_DATA_DIR) / "smartctl";
// Expected interpretations, one file per fixture and language. VANTORIX_UPDATE_GOLDEN=1 rewrites
// them from the current output, for review.
// Beside this file; found from the data folder's absolute path, since __FILE__ may be relative to the
// build folder (a compiler cache rewrites it) while the tests run in another.
const fs::path kGolden = fs::path(VANTORIX_TEST_DATA_DIR).parent_path() / "smart" / "golden";

// Status, capability, row count and the first 15 rows, one per line.
std::string summaryOf(const DiskSMARTInfo& info) {
    std::ostringstream text;
    text << "status: " << info.overallStatus.value_or("<none>") << '\n';
    text << "capable: " << (info.isCapable ? (*info.isCapable ? "true" : "false") : "<unknown>") << '\n';
    text << "rows: " << info.details.size() << '\n';
    for (std::size_t i = 0; i < std::min<std::size_t>(15, info.details.size()); ++i) {
        const auto& row = info.details[i];
        text << row.keyPath << " | " << row.displayName << " | " << row.value << '\n';
    }
    return text.str();
}

// Six fixtures have reviewed interpretations: an ATA hard disk and SSD, NVMe, SCSI (SAS), a failing
// disk behind a USB-SATA bridge and a failing NVMe drive.
TEST(SmartctlFixtures, EveryFixtureInterpretsInBothLanguagesAsReviewed) {
    const bool update = std::getenv("VANTORIX_UPDATE_GOLDEN") != nullptr;
    std::size_t fixtures = 0, reviewed = 0;
    for (const auto& entry : fs::directory_iterator(kCorpus)) {
        if (entry.path().extension() != ".json") continue;
        ++fixtures;
        const auto name = entry.path().filename().string();
        std::size_t rowCount = 0;
        for (const auto& [lang, suffix] : {std::pair{"en_US.UTF-8", ".en.txt"}, std::pair{"zh_CN.UTF-8", ".zh.txt"}}) {
            const testing::ScopedLanguage language(lang);
            const auto document = parsedDocument(testing::fileContents(entry.path()));
            ASSERT_TRUE(document) << name;
            const auto info = interpret(*document);
            // The open failure holds nothing but smartctl's own members.
            ASSERT_EQ(info.has_value(), name != "scrutiny-smart-fail.json") << name;
            if (!info) continue;
            if (rowCount == 0) rowCount = info->details.size();
            EXPECT_EQ(info->details.size(), rowCount) << name << " " << lang;
            for (const auto& row : info->details) {
                EXPECT_FALSE(row.value.empty() || row.displayName.empty()) << name << " " << row.keyPath;
                const auto* described = SMARTKeyCatalogue::descriptor(row.keyPath);
                EXPECT_TRUE(described == nullptr || described->shouldDisplay) << name << " " << row.keyPath;
            }
            const auto golden = kGolden / (entry.path().stem().string() + suffix);
            if (!fs::exists(golden)) continue;
            ++reviewed;
            if (update) std::ofstream(golden, std::ios::binary) << summaryOf(*info);
            EXPECT_EQ(summaryOf(*info), testing::fileContents(golden)) << golden;
        }
    }
    EXPECT_EQ(fixtures, 34U);
    EXPECT_EQ(reviewed, 12U);
}

}  // namespace
}  // namespace vantorix::smart
