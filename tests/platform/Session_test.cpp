#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "SysfsTestSupport.h"
#include "platform/linux/HelperServices.h"
#include "platform/linux/XdgFolders.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;

TEST(SystemdHelperService, MapsUnitStatesAndEnablesThroughSystemctlOrPkexec) {
    const testing::ScopedEnvironment desktop{{"DISPLAY", ":0"}};  // someone pkexec can ask
    // Stand-ins for systemctl and pkexec: they log the commands that change something, and
    // `systemctl show` answers from a file of properties.
    const testing::TreeCopy dir;
    const std::string d = dir.root().string();
    dir.write("systemctl", "#!/bin/sh\nif [ \"$1\" = show ]; then sed -n \"s/^${2#--property=}=//p\" " + d +
                               "/properties; exit 0; fi\necho \"systemctl $*\" >> " + d + "/log\n");
    dir.write("pkexec", "#!/bin/sh\necho \"pkexec $*\" >> " + d + "/log\nexit $(cat " + d + "/pkexec-status)\n");
    for (const char* program : {"systemctl", "pkexec"}) fs::permissions(dir / program, fs::perms::owner_all);
    const SystemdPrograms programs{d + "/systemctl", d + "/pkexec"};
    const auto changes = [&dir] {
        std::ifstream in(dir / "log");
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    };
    // What systemctl show says of the socket unit.
    const std::string loaded =
        "LoadState=loaded\nFragmentPath=/usr/lib/systemd/system/vantorix-smartctl-helper.socket\n";
    const std::string disabled = loaded + "UnitFileState=disabled\n", masked = loaded + "UnitFileState=masked\n";
    const std::string enabled = loaded + "UnitFileState=enabled\nActiveState=active\n";  // enabled only when active
    using State = HelperServiceState;
    using F = HelperServiceFailure;
    struct Case {
        std::string name, properties;
        uid_t uid;
        bool mayRegister;
        int pkexecStatus;
        State state;
        std::optional<F> enableFailure;  // nothing: enabled
        std::vector<std::string> commands;
    };
    const std::string direct = "systemctl enable --now vantorix-smartctl-helper.socket",
                      pkexec = "pkexec " + d + "/" + direct;
    const std::vector<Case> cases = {
        {"missing unit", "LoadState=not-found\n", 0, true, 0, State::unitNotInstalled, {}, {direct}},
        {"root enables directly", disabled, 0, true, 0, State::notEnabled, {}, {direct}},
        {"enabled; read-only: no change", enabled, 0, false, 0, State::enabled, F::needsAdministrator, {}},
        {"a user enables through pkexec", disabled, 1000, true, 0, State::notEnabled, {}, {pkexec}},
        {"password dialogue dismissed", disabled, 1000, true, 126, State::notEnabled, F::needsAdministrator, {pkexec}},
        {"pkexec runs systemctl, which fails", masked, 1000, true, 1, State::notEnabled, F::commandFailed, {pkexec}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        dir.write("properties", c.properties);
        dir.write("pkexec-status", std::to_string(c.pkexecStatus));
        fs::remove(dir / "log");
        SystemdHelperService service(RegistrationPolicy{c.mayRegister}, programs, c.uid);
        EXPECT_EQ(service.definitionPath().has_value(), c.state != State::unitNotInstalled);
        EXPECT_EQ(service.state(), c.state);
        const auto enabling = service.enable();
        EXPECT_EQ(enabling.ok() ? std::nullopt : std::optional(enabling.error().failure), c.enableFailure);
        EXPECT_EQ(changes(), c.commands);
    }
}

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

    EXPECT_EQ(xdg::downloadsFolder(), elsewhere.string()) << "no Downloads folder: the temporary folder";
    fs::create_directory(home.path() / "Downloads");
    EXPECT_EQ(xdg::downloadsFolder(), (home.path() / "Downloads").string());
    testing::writeFile(userDirs, "# written by xdg-user-dirs-update\nXDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    EXPECT_EQ(xdg::userDirectory("DOWNLOAD"), fetched);
    EXPECT_EQ(xdg::downloadsFolder(), (home.path() / "Downloads").string()) << "the named folder does not exist";
    fs::create_directory(fetched);
    EXPECT_EQ(xdg::downloadsFolder(), fetched);

    // The last assignment wins; escapes are undone; a home that is not "$HOME/…" names nothing.
    const std::pair<std::string, std::optional<std::string>> files[] = {
        {"XDG_DOWNLOAD_DIR=\"$HOME/a\"\n  XDG_DOWNLOAD_DIR = \"" + elsewhere.string() + "\"\n", elsewhere.string()},
        {"XDG_DOWNLOAD_DIR=\"$HOME/with \\\"quote\\\"\"\n", home.string() + "/with \"quote\""},
        {"XDG_DOWNLOAD_DIR=\"$HOMEX/a\"\n", std::nullopt},
        {"XDG_DOWNLOAD_DIR=\"$HOME/\"\n", std::nullopt},  // turned off
    };
    for (const auto& [contents, expected] : files) {
        testing::writeFile(userDirs, contents);
        EXPECT_EQ(xdg::userDirectory("DOWNLOAD"), expected) << contents;
    }
    EXPECT_EQ(xdg::downloadsFolder(), (home.path() / "Downloads").string()) << "a directory turned off";

    // The environment comes first, then the file in XDG_CONFIG_HOME.
    testing::TemporaryFolder config;
    environment.set("XDG_CONFIG_HOME", config.string());
    testing::writeFile(config.path() / "user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Fetched\"\n");
    EXPECT_EQ(xdg::downloadsFolder(), fetched);
    environment.set("XDG_DOWNLOAD_DIR", elsewhere.string());
    EXPECT_EQ(xdg::downloadsFolder(), elsewhere.string());
}

}  // namespace
}  // namespace vantorix
