#include "platform/linux/SysfsAttributes.h"

#include "SysfsTestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vantorix::sysfs {
namespace {

namespace fs = std::filesystem;
using testing::describe;

TEST(SysfsAttributeTyping, NumbersTextAndIdentifiers) {
    struct Case { std::string name, text, expected; };
    const std::vector<Case> cases = {
        {"size", "1953525168", "n:1953525168"},
        {"size", "18446744073709551615", "n:18446744073709551615"},
        {"size", "18446744073709551616", "s:18446744073709551616"},
        {"numa_node", "-1", "s:-1"},
        {"dev", "259:0", "s:259:0"},
        {"size", "", "s:"},
        {"size", " 42", "s: 42"},
        {"vendor", "0x144d", "n:5197"},
        {"device", "0XA808", "n:43016"},
        {"status", "0x", "s:0x"},
        {"status", "0x10000000000000000", "s:0x10000000000000000"},
        {"idVendor", "0781", "n:1921"},
        {"idProduct", "5583", "n:21891"},
        {"idProduct", "zz12", "s:zz12"},
        {"vendor", "ATA     ", "s:ATA     "},
        {"vendor", "1234", "s:1234"},
        {"serial", "0123456789", "s:0123456789"},
        {"manufacturer", "0x1234", "n:4660"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(describe(typedAttribute(c.name, c.text)), c.expected) << c.name << " = '" << c.text << "'";
}

TEST(SysfsBlockStat, ParsesTheCountersOfAStatLine) {
    struct Case { std::string text; std::optional<BlockStatCounters> expected; };
    const std::vector<Case> cases = {
        {"   31289     7505  2552514    16775     5995     6471   337112     1795        0    10272    19060     4705"
         "       78   177032      444      610       44\n",
         BlockStatCounters{31289, 2552514, 5995, 337112}},
        {"1 2 3 4 5 6 7", BlockStatCounters{1, 3, 5, 7}},
        {"\t1\t2\t3\t4\t5\t6\t7\t8\t9\t10\t11\n", BlockStatCounters{1, 3, 5, 7}},
        {"18446744073709551615 0 18446744073709551615 0 1 0 2", BlockStatCounters{18446744073709551615u,
                                                                                  18446744073709551615u, 1, 2}},
        {"1 2 3 4 5 6", std::nullopt},
        {"1 2 3 x 5 6 7", std::nullopt},
        {"1 2 3 4 5 6 7 8 9 10 eleven", std::nullopt},
        {"1 2 18446744073709551616 4 5 6 7", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseBlockStat(c.text), c.expected) << "'" << c.text << "'";
}

TEST(SysfsAttributeFile, ReadsTextAndPassesOverWhatIsNotAReadableTextAttribute) {
    const testing::TreeCopy dir;
    const fs::path& d = dir.root();
    for (const auto& [name, content] : std::vector<std::pair<std::string, std::string>>{
             {"plain", "Samsung SSD 860 \n"}, {"lines", "MAJOR=8\nMINOR=0\n\n"}, {"empty", ""},
             {"page", std::string(kMaxAttributeSize, 'a')}, {"too-long", std::string(kMaxAttributeSize + 1, 'a')},
             {"binary", std::string("\x01\x00\x02\n", 4)}, {"latin1", "Caf\xe9\n"},
             {"utf8", "\xe9\x9b\xb7\xe9\x9b\xb3\n"}, {"write-only", "secret\n"}})
        dir.write(name, content);
    fs::permissions(d / "write-only", fs::perms::owner_write);
    fs::create_directory(d / "a-directory");
    fs::create_symlink("plain", d / "a-link");
    ASSERT_EQ(::mkfifo((d / "a-fifo").c_str(), 0644), 0);

    struct Case { std::string name; std::optional<std::string> expected; };
    const std::vector<Case> cases = {
        {"plain", "Samsung SSD 860 "}, {"lines", "MAJOR=8\nMINOR=0"}, {"empty", ""},
        {"page", std::string(kMaxAttributeSize, 'a')}, {"utf8", "\xe9\x9b\xb7\xe9\x9b\xb3"},
    };
    for (const char* rejected : {"too-long", "binary", "latin1", "write-only", "a-directory", "a-link", "a-fifo",
                                 "missing", "..", "a-directory/../plain"})
        EXPECT_EQ(readAttribute(d, rejected), std::nullopt) << rejected;
    for (const auto& c : cases) EXPECT_EQ(readAttribute(d, c.name), c.expected) << c.name;
}

}  // namespace
}  // namespace vantorix::sysfs
