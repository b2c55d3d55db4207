#include "smart/SMARTKeyCatalogue.h"
#include "smart/SmartctlJSONInterpreter.h"
#include "smart/SmartmontoolsBridge.h"

#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace vantorix::smart {
namespace {

namespace fs = std::filesystem;

const fs::path kCorpus = fs::path(VANTORIX_TEST_DATA_DIR) / "smartctl";
// Expected interpretations, one file per fixture and language. VANTORIX_UPDATE_GOLDEN=1 rewrites
// them from the current output, for review.
// Beside this file; found from the data folder's absolute path, since __FILE__ may be relative to the
// build folder (a compiler cache rewrites it) while the tests run in another.
const fs::path kGolden = fs::path(VANTORIX_TEST_DATA_DIR).parent_path() / "smart" / "golden";

std::string contentsOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::optional<DiskSMARTInfo> interpretFixture(const std::string& name) {
    const auto document = parsedDocument(contentsOf(kCorpus / name));
    if (!document) return std::nullopt;
    return interpret(*document);
}

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

TEST(SmartctlFixtures, EveryFixtureInterpretsInBothLanguages) {
    std::vector<fs::path> fixtures;
    for (const auto& entry : fs::directory_iterator(kCorpus)) {
        if (entry.path().extension() == ".json") fixtures.push_back(entry.path());
    }
    ASSERT_EQ(fixtures.size(), 34U);
    for (const auto& path : fixtures) {
        const auto name = path.filename().string();
        std::size_t rowCount = 0;
        for (const char* lang : {"en_US.UTF-8", "zh_CN.UTF-8"}) {
            const testing::ScopedLanguage language(lang);
            const auto document = parsedDocument(contentsOf(path));
            ASSERT_TRUE(document) << name;
            const auto info = interpret(*document);
            // The open failure holds nothing but smartctl's own members.
            ASSERT_EQ(info.has_value(), name != "scrutiny-smart-fail.json") << name;
            if (!info) continue;
            if (rowCount == 0) rowCount = info->details.size();
            EXPECT_EQ(info->details.size(), rowCount) << name << " " << lang;
            for (const auto& row : info->details) {
                EXPECT_FALSE(row.value.empty() || row.displayName.empty()) << name << " " << row.keyPath;
                const auto* entry = SMARTKeyCatalogue::descriptor(row.keyPath);
                EXPECT_TRUE(entry == nullptr || entry->shouldDisplay) << name << " " << row.keyPath;
            }
        }
    }
}

TEST(SmartctlFixtures, MatchesTheReviewedInterpretations) {
    const std::vector<std::string> fixtures = {
        "smartctl_exporter-HGST_HUS724020ALE640_28.json",                        // ATA hard disk
        "scrutiny-smart-ata-full.json",                                           // ATA SSD, largest file
        "scrutiny-smart-nvme.json",                                               // NVMe
        "smartctl_exporter-HITACHI_H109060SESUN600G_9.json",                      // SCSI (SAS)
        "scrutiny-smart-fail2.json",                                              // USB-SATA bridge, failing
        "smartctl_exporter-nvme-null-SAMSUNG_MZWLL3T2HAJQ-00005-nvme0.json",      // failing NVMe
    };
    const bool update = std::getenv("VANTORIX_UPDATE_GOLDEN") != nullptr;
    for (const auto& fixture : fixtures) {
        for (const auto& [lang, suffix] : {std::pair{"en_US.UTF-8", ".en.txt"}, std::pair{"zh_CN.UTF-8", ".zh.txt"}}) {
            const testing::ScopedLanguage language(lang);
            const auto info = interpretFixture(fixture);
            ASSERT_TRUE(info) << fixture;
            const auto golden = kGolden / (fs::path(fixture).stem().string() + suffix);
            if (update) std::ofstream(golden, std::ios::binary) << summaryOf(*info);
            EXPECT_EQ(summaryOf(*info), contentsOf(golden)) << golden;
        }
    }
}

}  // namespace
}  // namespace vantorix::smart
