#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "integration/HelperTestClient.h"

namespace vantorix::testing {
namespace {

TEST(HelperRequests, ChildRunsWithAFixedEnvironmentAndNothingInherited) {
    auto standIn = SmartctlStandIn::create(printing(""));  // only for its temporary folder
    const std::string script = std::filesystem::path(standIn->path()).parent_path() / "inspect";
    std::ofstream(script) << "#!/bin/sh\n"
                             "echo \"pid $$\"\n"
                             "echo \"group $(cut -d' ' -f5 /proc/$$/stat)\"\n"
                             "echo \"environment $(tr '\\0' ' ' < /proc/$$/environ)\"\n"
                             "ls -l /proc/$$/fd\n";  // no pipeline: its pipe would show among the shell's
    std::filesystem::permissions(script, std::filesystem::perms::owner_all | std::filesystem::perms::others_exec |
                                             std::filesystem::perms::others_read);
    auto daemon = startHelper(script);
    ASSERT_NE(daemon, nullptr);
    HelperClient client(daemon->socketPath());  // open while the child runs: it must not inherit it
    const auto reply = client.ask(fetchFrame(rootDiskName()));
    ASSERT_NE(result(reply), nullptr);
    std::map<std::string, std::string> facts;
    std::istringstream lines(result(reply)->jsonData);
    for (std::string line; std::getline(lines, line);) {
        if (const auto arrow = line.find(" -> "); arrow != std::string::npos) {  // "lr-x------ … 0 -> /dev/null"
            const auto number = line.rfind(' ', arrow - 1) + 1;
            facts["fd " + line.substr(number, arrow - number)] = line.substr(arrow + 4);
        } else if (const auto space = line.find(' '); space != std::string::npos) {
            facts[line.substr(0, space)] = line.substr(space + 1);
        }
    }
    EXPECT_EQ(facts["environment"], "PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C ");
    EXPECT_EQ(facts["group"], facts["pid"]);  // a process group of its own
    EXPECT_EQ(facts["fd 0"], "/dev/null");
    EXPECT_EQ(facts["fd 1"].rfind("pipe:", 0), 0U) << facts["fd 1"];
    EXPECT_EQ(facts["fd 2"].rfind("pipe:", 0), 0U) << facts["fd 2"];
    for (const auto& [key, target] : facts) {
        // Beyond 0 to 2, only the script the shell keeps open.
        if (key.rfind("fd ", 0) == 0 && key != "fd 0" && key != "fd 1" && key != "fd 2") {
            EXPECT_EQ(target, script) << key;
        }
    }
}

}  // namespace
}  // namespace vantorix::testing
