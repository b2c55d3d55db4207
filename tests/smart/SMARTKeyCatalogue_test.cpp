#include "smart/SMARTKeyCatalogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

namespace vantorix {
namespace {

TEST(SMARTKeyCatalogue, HoldsEveryKeyOnceUnderItsOwnIndexFreePath) {
    const auto& entries = SMARTKeyCatalogue::entries();
    EXPECT_EQ(entries.size(), 177U);
    EXPECT_EQ(std::count_if(entries.begin(), entries.end(), [](const auto& e) { return e.second.shouldDisplay; }), 67);
    for (const auto& [key, entry] : entries) {
        EXPECT_EQ(key, entry.key);
        EXPECT_EQ(SMARTKeyCatalogue::normalizedKeyPath(key), key) << key;
        EXPECT_FALSE(entry.displayNameChinese.empty() || entry.displayNameEnglish.empty()) << key;
    }
}

TEST(SMARTKeyCatalogue, NormalizesIndicesBeforeAnExactLookup) {
    struct Case {
        std::string path;
        std::string normalized;
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

}  // namespace
}  // namespace vantorix
