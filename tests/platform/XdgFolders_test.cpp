#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "platform/linux/XdgFolders.h"
#include "support/TemporaryFolder.h"
#include "support/ScopedEnvironment.h"

namespace vantorix::xdg {
namespace {

namespace fs = std::filesystem;

TEST(XdgFolders, DownloadsFollowTheUserDirectoriesThenHomeThenTheTemporaryFolder) {
    testing::TemporaryFolder home;
    testing::TemporaryFolder elsewhere;
    testing::ScopedEnvironment environment{{"HOME", home.string()},
                                           {"XDG_CONFIG_HOME", std::nullopt},
                                           {"XDG_DOWNLOAD_DIR", std::nullopt},
                                           {"TMPDIR", elsewhere.string()}};
    fs::create_directories(home.path() / ".config");
    const auto userDirs = home.path() / ".config" / "user-dirs.dirs";
    const std::string fetched = (home.path() / "Fetched").string();

    EXPECT_EQ(downloadsFolder(), elsewhere.string()) << "no Downloads folder: the temporary folder";
    fs::create_directory(home.path() / "Downloads");
    EXPECT_EQ(downloadsFolder(), (home.path() / "Downloads").string());
    testing::writeFile(userDirs, "# written by xdg-user-dirs-update\nXDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    EXPECT_EQ(userDirectory("DOWNLOAD"), fetched);
    EXPECT_EQ(downloadsFolder(), (home.path() / "Downloads").string()) << "the named folder does not exist";
    fs::create_directory(fetched);
    EXPECT_EQ(downloadsFolder(), fetched);

    // The last assignment wins; escapes are undone; a home that is not "$HOME/…" names nothing.
    const std::pair<std::string, std::optional<std::string>> files[] = {
        {"XDG_DOWNLOAD_DIR=\"$HOME/a\"\n  XDG_DOWNLOAD_DIR = \"" + elsewhere.string() + "\"\n", elsewhere.string()},
        {"XDG_DOWNLOAD_DIR=\"$HOME/with \\\"quote\\\"\"\n", home.string() + "/with \"quote\""},
        {"XDG_DOWNLOAD_DIR=\"$HOMEX/a\"\n", std::nullopt},
        {"XDG_DOWNLOAD_DIR=\"$HOME/\"\n", std::nullopt},  // turned off
    };
    for (const auto& [contents, expected] : files) {
        testing::writeFile(userDirs, contents);
        EXPECT_EQ(userDirectory("DOWNLOAD"), expected) << contents;
    }
    EXPECT_EQ(downloadsFolder(), (home.path() / "Downloads").string()) << "a directory turned off";

    // The environment comes first, then the file in XDG_CONFIG_HOME.
    testing::TemporaryFolder config;
    environment.set("XDG_CONFIG_HOME", config.string());
    testing::writeFile(config.path() / "user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    EXPECT_EQ(downloadsFolder(), fetched);
    environment.set("XDG_DOWNLOAD_DIR", elsewhere.string());
    EXPECT_EQ(downloadsFolder(), elsewhere.string());
}

}  // namespace
}  // namespace vantorix::xdg
