#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/linux/HelperServices.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;

// Stand-ins for systemctl and pkexec: shell scripts that record their arguments and answer
// `systemctl show` from a file of properties.
class StandInPrograms {
public:
    StandInPrograms() {
        char pattern[] = "/tmp/vantorix-systemd-XXXXXX";
        dir_ = ::mkdtemp(pattern);
        write("systemctl", "#!/bin/sh\necho \"systemctl $*\" >> " + log() + "\n"
                           "if [ \"$1\" = show ]; then prop=${2#--property=}; sed -n \"s/^$prop=//p\" " + dir_ + "/properties; exit 0; fi\n"
                           "exit $(cat " + dir_ + "/systemctl-status)\n");
        write("pkexec", "#!/bin/sh\necho \"pkexec $*\" >> " + log() + "\nexit $(cat " + dir_ + "/pkexec-status)\n");
        setState("", 0, 0);
    }
    ~StandInPrograms() { fs::remove_all(dir_); }

    void setState(const std::string& properties, int systemctlStatus, int pkexecStatus) {
        std::ofstream(dir_ + "/properties") << properties;
        std::ofstream(dir_ + "/systemctl-status") << systemctlStatus;
        std::ofstream(dir_ + "/pkexec-status") << pkexecStatus;
        fs::remove(log());
    }
    SystemdPrograms programs() const { return {dir_ + "/systemctl", dir_ + "/pkexec"}; }
    // The commands run other than `systemctl show`.
    std::vector<std::string> changes() const {
        std::ifstream in(log());
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("systemctl show", 0) != 0) lines.push_back(line);
        }
        return lines;
    }

private:
    std::string log() const { return dir_ + "/log"; }
    void write(const std::string& name, const std::string& script) {
        std::ofstream(dir_ + "/" + name) << script;
        ::chmod((dir_ + "/" + name).c_str(), 0755);
    }
    std::string dir_;
};

TEST(SystemdHelperService, MapsUnitStatesAndEnablesThroughSystemctlOrPkexec) {
    const testing::ScopedEnvironment desktop{{"DISPLAY", ":0"}};  // someone pkexec can ask
    StandInPrograms stand;
    const std::string loaded = "LoadState=loaded\nFragmentPath=/usr/lib/systemd/system/vantorix-smartctl-helper.socket\n";
    using State = HelperServiceState;
    using F = HelperServiceFailure;
    struct Case {
        std::string name;
        std::string properties;
        uid_t uid;
        bool mayRegister;
        int pkexecStatus;
        State state;
        std::optional<F> enableFailure;  // nothing: enabled
        std::vector<std::string> commands;
    };
    const std::string unit = "vantorix-smartctl-helper.socket";
    const std::string pkexecEnable = "pkexec " + stand.programs().systemctl + " enable --now " + unit;
    const std::vector<Case> cases = {
        {"missing unit", "LoadState=not-found\n", 0, true, 0, State::unitNotInstalled, std::nullopt,
         {"systemctl enable --now " + unit}},
        {"enabled and listening", loaded + "UnitFileState=enabled\nActiveState=active\n", 1000, false, 0, State::enabled,
         F::needsAdministrator, {}},
        {"root enables directly", loaded + "UnitFileState=disabled\nActiveState=inactive\n", 0, true, 0, State::notEnabled,
         std::nullopt, {"systemctl enable --now " + unit}},
        {"a read-only command changes nothing, even as root", loaded + "UnitFileState=disabled\n", 0, false, 0,
         State::needsAdministrator, F::needsAdministrator, {}},
        {"a user enables through pkexec", loaded + "UnitFileState=disabled\n", 1000, true, 0, State::notEnabled,
         std::nullopt, {pkexecEnable}},
        {"the password dialogue dismissed", loaded + "UnitFileState=disabled\n", 1000, true, 126, State::notEnabled,
         F::needsAdministrator, {pkexecEnable}},
        {"pkexec runs systemctl, which fails", loaded + "UnitFileState=masked\n", 1000, true, 1, State::notEnabled,
         F::commandFailed, {pkexecEnable}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stand.setState(c.properties, 0, c.pkexecStatus);
        SystemdHelperService service(RegistrationPolicy{c.mayRegister}, stand.programs(), c.uid);
        EXPECT_EQ(service.definitionPath().has_value(), c.state != State::unitNotInstalled);
        EXPECT_EQ(service.state(), c.state);
        auto enabling = service.enable();
        EXPECT_EQ(enabling.ok(), !c.enableFailure.has_value());
        if (!enabling.ok()) {
            EXPECT_EQ(enabling.error().failure, *c.enableFailure);
        }
        EXPECT_EQ(stand.changes(), c.commands);
    }
}

}  // namespace
}  // namespace vantorix
