#include "smart/SmartctlJSONInterpreter.h"
#include "log/Log.h"
#include "smart/SMARTKeyCatalogue.h"
#include "smart/SmartValueText.h"
#include "smart/SmartmontoolsBridge.h"

#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace vantorix::smart {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
using ::testing::ElementsAreArray;

std::vector<std::string> rowTexts(const std::vector<DiskSMARTInfo::Detail>& rows) {
    std::vector<std::string> texts;
    for (const auto& row : rows) texts.push_back(row.keyPath + " | " + row.displayName + " | " + row.value);
    return texts;
}

std::vector<std::string> interpretedRows(const std::string& text) {
    const auto info = interpret(json::parse(text));
    return info ? rowTexts(info->details) : std::vector<std::string>{"<nothing>"};
}

TEST(SmartctlJSONInterpreter, DerivesTheOverallStatusAndTheCapability) {
    const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
        {R"({"smart_status": {"passed": true}})", "PASSED"},
        {R"({"smart_status": {"passed": false, "string": " Drive failing \n"}})", " Drive failing \n"},
        {R"({"smart_status": {"string": "  ", "passed": false}})", "FAILED"},
        {R"({"smart_status": {"string": 7, "passed": "yes"}, "nvme_smart_health_information_log": {"critical_warning": 16}})",
         "NVMe Warning: 16"},
        {R"({"nvme_smart_health_information_log": {"critical_warning": null}})", "NVMe Warning: <null>"},
        {R"({"nvme_smart_health_information_log": [{"critical_warning": 1}]})", std::nullopt},
        {R"({})", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(overallStatus(json::parse(text), true), expected) << text;
    // The capability is the first boolean found.
    const std::vector<std::pair<std::string, std::optional<bool>>> capabilities = {
        {R"({"smart_support": {"available": true, "enabled": false}})", true},
        {R"({"smart_support": {"enabled": false}})", false},
        {R"({"smart_support": true})", std::nullopt},
        {R"({"smart_support": {}, "ata_smart_data": {"capabilities": {"supports_smart": false}}})", false},
        {R"({"ata_smart_data": {"capabilities": {"smart_capable": true, "supports_smart": false}}})", true},
        {R"({})", std::nullopt},
    };
    for (const auto& [text, expected] : capabilities) EXPECT_EQ(capability(json::parse(text)), expected) << text;
    // A capability alone is usable information.
    const auto capableOnly = interpret(json::parse(R"({"smart_support": {"available": false, "enabled": true}})"));
    ASSERT_TRUE(capableOnly);
    EXPECT_EQ(capableOnly->isCapable, false);
    EXPECT_FALSE(capableOnly->overallStatus);
    EXPECT_TRUE(capableOnly->details.empty());
}

TEST(SmartctlJSONInterpreter, FlattensEveryShapeOfJsonIntoNamedRows) {
    const testing::ScopedLanguage english("en_US.UTF-8");
    // Each document and its rows in display order.
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {R"({"smart_status": {"passed": true}})", {"smart_status.passed | Self-test Passed | Yes"}},
        {R"({"smartctl": {"version": [7, 3]}, "json_format_version": [1, 0], "device": {"name": "/dev/sda"},
             "ata_device": {}, "messages": [{"string": "x"}]})",
         {"<nothing>"}},
        {R"({"nvme_smart_health_information_log": {"temperature_sensors": [35, 41], "nsid": 1, "media_errors": 0}})",
         {"nvme_smart_health_information_log.temperature_sensors | Temperature Sensors | 35, 41",
          "nvme_smart_health_information_log.media_errors | NVMe Media Errors | 0"}},
        // Paths are looked up as text: a top-level member named "smartctl.version" is the hidden entry.
        {R"({"nvme_power_states": [{"max_power": {"value": 825, "scale": 2}}], "smartctl.version": 1})", {"<nothing>"}},
        {R"({"fooBarBaz_qux": "x", "a": null, "b": "", "c": "  ", "d": -3, "e": -0.125, "f": 2.5e-3})",
         {"a | a | <null>", "d | d | -3", "e | e | -0.12", "f | f | 0", "fooBarBaz_qux | foo Bar Baz qux | x"}},
        // Empty containers give no row; a list's own row follows the rows of its container elements.
        {R"({"o": {}, "l": [], "n": [[], {}, [null]], "mix": [{"k": 1}, "two", 3.5, true, null, "", [4, [5]]]})",
         {"mix | mix | two, 3.5, Yes, <null>", "mix[0].k | mix #1 › k | 1", "mix[6] | mix #7 | 4",
          "mix[6][1] | mix #7 #2 | 5", "n[2] | n #3 | <null>"}},
        // Upper-case and non-ASCII names are kept as written; names compare by lower-cased code points.
        {R"({"Vendor": {"b": 1, "A": 2, "c": 3, "Ä": 4}, "型号X": "设备 ÿ"})",
         {"型号X | 型号X | 设备 ÿ", "Vendor.A | Vendor › A | 2", "Vendor.b | Vendor › b | 1",
          "Vendor.c | Vendor › c | 3", "Vendor.Ä | Vendor › Ä | 4"}},
        // Names equal but for case keep the members' document order.
        {R"({"o": {"b": 1, "B": 2, "a": 3}, "p": {"B": 4, "b": 5}})",
         {"o.a | o › a | 3", "o.b | o › b | 1", "o.B | o › B | 2", "p.B | p › B | 4", "p.b | p › b | 5"}},
        // A catalogue label replaces the composed name, also for containers and their unknown members.
        {R"({"nvme_power_states": [{"x_y": 1}], "ata_smart_attributes": {"table": [{"new_flag": 2}]}})",
         {"ata_smart_attributes.table[0].new_flag | Attribute Entry › new flag | 2",
          "nvme_power_states[0].x_y | Power State › x y | 1"}},
    };
    for (const auto& [text, rows] : cases) EXPECT_THAT(interpretedRows(text), ElementsAreArray(rows)) << text;
}

// Which group a row falls in shows in the reviewed fixtures (SmartctlFixtures); within a group rows
// go by name, then as they came: ten attributes are grouped by name, and within a name in table order.
TEST(SmartctlJSONInterpreter, OrdersRowsOfAGroupByNameThenArrival) {
    const testing::ScopedLanguage english("en_US.UTF-8");
    json table = json::array();
    for (int i = 0; i < 10; ++i) table.push_back({{"id", 10 - i}, {"name", "Attr"}, {"value", 100 + i}});
    const auto info = interpret(json{{"ata_smart_attributes", {{"table", table}}}});
    ASSERT_TRUE(info);
    ASSERT_EQ(info->details.size(), 30U);
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(info->details[i].displayName, "Attribute ID");
        EXPECT_EQ(info->details[i].keyPath, "ata_smart_attributes.table[" + std::to_string(i) + "].id");
        EXPECT_EQ(info->details[10 + i].displayName, "Attribute Name");
        EXPECT_EQ(info->details[20 + i].value, std::to_string(100 + i));
    }
}

TEST(SmartctlJSONInterpreter, WalksDeepNestingUpToItsBoundWithoutExhaustingTheStack) {
    const testing::ScopedLanguage english("en_US.UTF-8");
    // {"k": {"k": ... {"k": 1, "l": [2]}}}: the innermost of n objects is at depth n − 1.
    const auto nested = [](int objects) {
        json value = {{"k", 1}, {"l", {2}}};
        for (int i = 1; i < objects; ++i) value = json{{"k", std::move(value)}};
        return value;
    };
    EXPECT_EQ(interpret(nested(kMaximumWalkDepth))->details.size(), 2U);
    const auto atBound = interpret(nested(kMaximumWalkDepth + 1));
    ASSERT_TRUE(atBound);
    ASSERT_EQ(atBound->details.size(), 1U);  // the list, one level deeper, is past the bound
    EXPECT_EQ(atBound->details[0].value, "1");
    EXPECT_EQ(std::count(atBound->details[0].keyPath.begin(), atBound->details[0].keyPath.end(), '.'),
              kMaximumWalkDepth);
    EXPECT_FALSE(interpret(nested(kMaximumWalkDepth + 2)));

    const std::string deep = R"({"a": )" + std::string(200000, '[') + "1" + std::string(200000, ']') + "}";
    EXPECT_FALSE(interpret(json::parse(deep)));
}

TEST(SMARTKeyCatalogue, HoldsEveryKeyOnceUnderItsOwnIndexFreePath) {
    const auto& entries = SMARTKeyCatalogue::entries();
    for (const auto& [key, entry] : entries) {
        EXPECT_EQ(key, entry.key);
        EXPECT_EQ(SMARTKeyCatalogue::normalizedKeyPath(key), key) << key;
        EXPECT_FALSE(entry.displayNameChinese.empty() || entry.displayNameEnglish.empty()) << key;
    }
}

TEST(SMARTKeyCatalogue, NormalizesIndicesBeforeAnExactLookup) {
    struct Case {
        std::string path, normalized;
        std::optional<std::string> english;  // label of the entry found, if any
        bool shown = false;
    };
    const std::vector<Case> cases = {
        {"ata_smart_attributes.table[0].flags.auto_keep", "ata_smart_attributes.table[].flags.auto_keep", "Auto Keep",
         true},
        {"nvme_power_states[12]", "nvme_power_states[]", "Power State", false},
        {"model_name", "model_name", "Model Name", true},
        {"nvme_firmware_update_capabilities.activiation_without_reset",
         "nvme_firmware_update_capabilities.activiation_without_reset", "Activate Without Reset", false},
        {"nvme_firmware_update_capabilities.activation_without_reset",
         "nvme_firmware_update_capabilities.activation_without_reset", std::nullopt},
        // Any run of Unicode decimal digits is an index; anything else between brackets is not.
        {"a[007][1][]", "a[][][]", std::nullopt},
        {"x[1a].y[-1].z[ 1][1", "x[1a].y[-1].z[ 1][1", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SMARTKeyCatalogue::normalizedKeyPath(c.path), c.normalized) << c.path;
        const auto* entry = SMARTKeyCatalogue::descriptor(c.path);
        ASSERT_EQ(entry != nullptr, c.english.has_value()) << c.path;
        if (entry != nullptr) {
            EXPECT_EQ(entry->displayNameEnglish, *c.english) << c.path;
            EXPECT_EQ(entry->shouldDisplay, c.shown) << c.path;
        }
    }
}

TEST(SmartValueText, FormatsEachJsonTypeInBothLanguages) {
    struct Case {
        std::string json;  // one value, parsed as smartctl output would be
        std::string english, chinese;
    };
    const std::vector<Case> cases = {
        {"-1234.5", "-1,234.5", "-1,234.5"},
        {"0.125", "0.12", "0.12"},  // the formatter's default rounding: half to even
        // Integers are printed exactly, not through a double, at both ends of 64 bits.
        {"9223372036854775807", "9,223,372,036,854,775,807", "9,223,372,036,854,775,807"},
        {"-9223372036854775808", "-9,223,372,036,854,775,808", "-9,223,372,036,854,775,808"},
        {"18446744073709551615", "18,446,744,073,709,551,615", "18,446,744,073,709,551,615"},
        {"true", "Yes", "是"},
        {"false", "No", "否"},
        {"null", "<null>", "<null>"},
        {R"("\t\r\n line one\nline two \u2028")", "line one\nline two", "line one\nline two"},
        {R"("\u200b")", "\u200b", "\u200b"},  // a zero-width space is a format character, not white space
    };
    for (const auto& c : cases) {
        const auto value = json::parse(c.json);
        EXPECT_EQ(formattedValue(value, true), c.english) << c.json;
        EXPECT_EQ(formattedValue(value, false), c.chinese) << c.json;
    }
}

TEST(SmartmontoolsBridge, InterpretsAResultOrLogsWhyItCannot) {
    const std::pair<std::string, bool> cases[] = {
        {"", false},
        {"not json", false},
        // Documents without SMART information.
        {R"({})", false},
        {R"([{"smart_status": {"passed": true}}])", false},
        {R"("PASSED")", false},
        {R"(null)", false},
        {R"({"device": {"name": "/dev/sdc"}, "smartctl": {"exit_status": 2}})", false},
        {R"({"a": "", "b": {}, "c": [], "smart_support": true, "x": [""]})", false},
        {R"({"smart_status": {"passed": true}})", true},
    };
    for (const auto& [text, usable] : cases) {
        const log::Capture capture;
        const auto info = interpretResult(SmartctlExecutionResult{text, "smartctl -j -a /dev/sdc", "", 64}, "sdc");
        EXPECT_EQ(info.has_value(), usable) << text;
        EXPECT_EQ(capture.messages(kBridgeLogCategory, log::Level::error).empty(), usable) << text;
        EXPECT_TRUE(!info || info->sourceCommand == "smartctl -j -a /dev/sdc") << text;
    }
    // Bytes that are not UTF-8 (broken USB bridges) become U+FFFD; the rest is still read.
    const auto repaired = interpretResult(SmartctlExecutionResult{"{\"model_name\": \"WD\xff\xc3\"}", "c", "", 0},
                                          "sd");
    ASSERT_TRUE(repaired);
    EXPECT_EQ(repaired->details[0].value, "WD\uFFFD\uFFFD");
}

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
    const auto rows = rowTexts(info.details);
    for (std::size_t i = 0; i < std::min<std::size_t>(15, rows.size()); ++i) text << rows[i] << '\n';
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
