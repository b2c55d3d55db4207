#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/VirtualDisplay.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::runProcess;
using testing::runShell;

// The package made from this build, as a person installs it: dpkg -i, the installed programs run,
// dpkg --purge, and nothing of it is left on the machine or running.
TEST(Package, InstallsRunsAndPurgesWithoutATrace) {
    if (::geteuid() != 0) GTEST_SKIP() << "dpkg -i needs root";
    if (::access("/usr/bin/dpkg", X_OK) != 0 || ::access("/usr/bin/cpack", X_OK) != 0) GTEST_SKIP() << "no dpkg or cpack";
    if (runProcess({"/usr/bin/dpkg-query", "-W", "-f=${Status}", "vantorix"}).out.find("installed") != std::string::npos)
        GTEST_SKIP() << "a vantorix package is installed already; not touching it";
    const fs::path config = fs::path(VANTORIX_BUILD_DIR) / "CPackConfig.cmake";
    ASSERT_TRUE(fs::exists(config));

    char pattern[] = "/tmp/vantorix-package-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const fs::path out = pattern;
    // Removed however the test ends.
    const std::unique_ptr<const fs::path, void (*)(const fs::path*)> cleanup(&out, [](const fs::path* path) {
        std::error_code ignored;
        fs::remove_all(*path, ignored);
    });
    const auto made = runProcess({"/usr/bin/cpack", "-G", "DEB", "--config", config.string(), "-B", out.string()});
    ASSERT_EQ(made.exitStatus, 0) << made.out << made.err;
    fs::path package;
    for (const auto& entry : fs::directory_iterator(out))
        if (entry.path().extension() == ".deb") package = entry.path();
    ASSERT_FALSE(package.empty()) << made.out;

    const auto installed = runProcess({"/usr/bin/dpkg", "-i", package.string()});
    ASSERT_EQ(installed.exitStatus, 0) << installed.out << installed.err;
    std::vector<std::string> files;
    std::istringstream listed(runProcess({"/usr/bin/dpkg-query", "-L", "vantorix"}).out);
    for (std::string line; std::getline(listed, line);) files.push_back(line);

    const auto version = runProcess({"/usr/bin/vantorix-cli", "--version"});
    EXPECT_EQ(version.out, "vantorix-cli " VANTORIX_VERSION " (build " VANTORIX_BUILD_NUMBER ")\n");
    const auto info = runProcess({"/usr/bin/vantorix-cli", "info", "/", "--json"}, {{"LANGUAGE", "en_US.UTF-8"}});
    EXPECT_EQ(info.exitStatus, 0) << info.err;
    EXPECT_NE(info.out.find("\"device\""), std::string::npos);
    const auto helper = runProcess({"/usr/bin/vantorix-cli", "helper", "status"}, {{"LANGUAGE", "en_US.UTF-8"}});
    EXPECT_TRUE(helper.exitStatus == 0 || helper.exitStatus == 1) << helper.err;
    EXPECT_FALSE((helper.out + helper.err).empty());
    const auto manual = runProcess({"/usr/bin/man", "-P", "cat", "vantorix-cli"}, {{"MANWIDTH", "100"}});
    for (const char* subcommand : {"info", "monitor", "bench", "smart", "helper", "check-update", "feedback", "serve"})
        EXPECT_NE(manual.out.find(std::string("vantorix-cli ") + subcommand), std::string::npos) << subcommand;
    // The desktop entry, the metainfo and the units as installed pass their checkers without a remark.
    const auto desktop = runProcess({"/usr/bin/desktop-file-validate", "/usr/share/applications/com.vantorix.Vantorix.desktop"});
    EXPECT_EQ(desktop.exitStatus, 0);
    EXPECT_EQ(desktop.out + desktop.err, "");
    const auto metainfo = runProcess({"/usr/bin/appstreamcli", "validate", "--no-net", "--explain",
                                      "/usr/share/metainfo/com.vantorix.Vantorix.metainfo.xml"});
    EXPECT_EQ(metainfo.exitStatus, 0) << metainfo.out;
    EXPECT_EQ(metainfo.out.find("W:"), std::string::npos) << metainfo.out;
    const auto verified = runProcess({"/usr/bin/systemd-analyze", "verify", "--man=no",
                                      "/usr/lib/systemd/system/vantorix-smartctl-helper.socket",
                                      "/usr/lib/systemd/system/vantorix-smartctl-helper.service",
                                      "/usr/lib/systemd/system/vantorix-exporter.service"},
                                     {{"SYSTEMD_LOG_LEVEL", "notice"}});
    EXPECT_EQ(verified.exitStatus, 0);
    // Warnings (an unknown key, a bad value) leave the status at 0: there must be none.
    EXPECT_EQ(verified.out + verified.err, "");
    // The installed units start the installed programs.
    const auto units = runShell("cat /usr/lib/systemd/system/vantorix-smartctl-helper.service "
                                "/usr/lib/systemd/system/vantorix-exporter.service").out;
    EXPECT_NE(units.find("\nExecStart=/usr/libexec/vantorix/vantorix-smartctl-helper\n"), std::string::npos) << units;
    EXPECT_NE(units.find("\nExecStart=/usr/bin/vantorix-cli serve"), std::string::npos) << units;

    if (const testing::VirtualDisplay x; !x.display.empty()) {
        auto app = testing::RunningProcess::start({"/usr/bin/vantorix"}, {{"DISPLAY", x.display}, {"QT_QPA_PLATFORM", "xcb"}});
        EXPECT_EQ(app->readLine(30s).value_or(""), "[Vantorix] App launched and root window created.") << app->standardError();
        app->signal(SIGTERM);
        EXPECT_EQ(app->waitForExit(10s).value_or(-1), 0);
    } else {
        ADD_FAILURE() << x.error;
    }

    const auto purged = runProcess({"/usr/bin/dpkg", "--purge", "vantorix"});
    EXPECT_EQ(purged.exitStatus, 0) << purged.out << purged.err;
    std::vector<std::string> left;
    for (const auto& file : files)
        if (fs::is_regular_file(file) || fs::is_symlink(file)) left.push_back(file);
    EXPECT_TRUE(left.empty()) << left.front();
    EXPECT_GT(files.size(), 10u);
    EXPECT_NE(runProcess({"/usr/bin/pgrep", "-f", "^/usr/(bin/vantorix|libexec/vantorix/)"}).exitStatus, 0);
}

}  // namespace
}  // namespace vantorix
