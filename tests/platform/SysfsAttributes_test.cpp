#include "platform/linux/SysfsAttributes.h"

#include "SysfsTestSupport.h"
#include "platform/BlockStatistics.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vantorix::sysfs {

using vantorix::BlockStatistics;
using vantorix::parseBlockStatistics;
namespace {

namespace fs = std::filesystem;

TEST(SysfsNumbers, DecimalHexadecimalAndHexLiterals) {
    struct Case {
        std::string text;
        std::optional<std::uint64_t> decimal, hex, literal;
    };
    const std::vector<Case> cases = {
        {"1953525168", 1953525168, 0x1953525168, std::nullopt},
        {"18446744073709551615", 18446744073709551615u, std::nullopt, std::nullopt},
        {"18446744073709551616", std::nullopt, std::nullopt, std::nullopt},
        {" 42", std::nullopt, std::nullopt, std::nullopt},
        {"0781", 781, 0x0781, std::nullopt},
        {"0x144d", std::nullopt, std::nullopt, 0x144d},
        {"0x10000000000000000", std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parseDecimal(c.text), c.decimal) << "'" << c.text << "'";
        EXPECT_EQ(parseHex(c.text), c.hex) << "'" << c.text << "'";
        EXPECT_EQ(parseHexLiteral(c.text), c.literal) << "'" << c.text << "'";
    }
}

TEST(BlockStatisticsText, ParsesEveryFieldTheKernelGives) {
    const auto stat = [](std::initializer_list<std::uint64_t> fields) {
        BlockStatistics s;
        std::uint64_t* target[] = {&s.readsCompleted,   &s.readsMerged,          &s.sectorsRead,
                                   &s.readMilliseconds, &s.writesCompleted,      &s.writesMerged,
                                   &s.sectorsWritten,   &s.writeMilliseconds,    &s.inFlight,
                                   &s.busyMilliseconds, &s.weightedMilliseconds, &s.discardsCompleted,
                                   &s.discardsMerged,   &s.sectorsDiscarded,     &s.discardMilliseconds,
                                   &s.flushesCompleted, &s.flushMilliseconds};
        std::size_t i = 0;
        for (const auto value : fields) *target[i++] = value;
        return s;
    };
    struct Case {
        std::string text;
        std::optional<BlockStatistics> expected;
    };
    const std::vector<Case> cases = {
        {"\t1\t2\t3\t4\t5\t6\t7\t8\t9\t10\t11\n", stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11})},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15", stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19",
         stat({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17})},
        {"18446744073709551615 0 18446744073709551615 0 1 0 2 0 0 0 0",
         stat({18446744073709551615u, 0, 18446744073709551615u, 0, 1, 0, 2, 0, 0, 0, 0})},
        {"1 2 3 4 5 6 7", std::nullopt},
        {"1 2 3 x 5 6 7 8 9 10 11", std::nullopt},
        {"1 2 18446744073709551616 4 5 6 7 8 9 10 11", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseBlockStatistics(c.text), c.expected) << "'" << c.text << "'";
    // Sectors are 512 bytes, and a byte count wraps as the sector count does.
    EXPECT_EQ(stat({0, 0, 3}).bytesRead(), 1536u);
    EXPECT_EQ(stat({0, 0, 0, 0, 0, 0, 18446744073709551615u}).bytesWritten(), 18446744073709551104u);
}

TEST(SysfsAttributeFile, ReadsTextAndPassesOverWhatIsNotAReadableTextAttribute) {
    const testing::TreeCopy dir;
    struct Case {
        std::string name, content;
        std::optional<std::string> text;  // nothing: passed over
    };
    const std::vector<Case> cases = {
        {"plain", "Samsung SSD 860 \n", "Samsung SSD 860 "},
        {"lines", "MAJOR=8\nMINOR=0\n\n", "MAJOR=8\nMINOR=0"},
        {"empty", "", ""},
        {"page", std::string(kMaxAttributeSize, 'a'), std::string(kMaxAttributeSize, 'a')},
        {"too-long", std::string(kMaxAttributeSize + 1, 'a'), std::nullopt},
        {"binary", std::string("\x01\x00\x02\n", 4), std::nullopt},
        {"latin1", "Caf\xe9\n", std::nullopt},
        {"utf8", "\xe9\x9b\xb7\xe9\x9b\xb3\n", "\xe9\x9b\xb7\xe9\x9b\xb3"},
    };
    for (const auto& c : cases) dir.write(c.name, c.content);
    fs::create_symlink("plain", dir / "a-link");
    for (const auto& c : cases) EXPECT_EQ(readAttribute(dir.root(), c.name), c.text) << c.name;
    for (const char* rejected : {"a-link", "missing", "..", "../plain"})
        EXPECT_EQ(readAttribute(dir.root(), rejected), std::nullopt) << rejected;
}

}  // namespace
}  // namespace vantorix::sysfs
