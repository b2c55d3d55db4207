#include "platform/linux/HelperServices.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fmt/format.h>

#include "log/Log.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const log::Logger& servicesLogger() { return log::logger("PrivilegedHelperManager"); }

bool isExecutable(const std::string& path) { return !path.empty() && ::access(path.c_str(), X_OK) == 0; }

HelperServiceError failure(HelperServiceFailure kind, std::string description, std::string output = {}) {
    return HelperServiceError{kind, std::move(description), std::move(output)};
}

// The program path of a unit's ExecStart as systemctl shows it: "{ path=/usr/libexec/x ; argv[]=… }".
std::string execStartPath(std::string_view shown) {
    const auto start = shown.find("path=");
    if (start == std::string_view::npos) return {};
    const auto value = shown.substr(start + 5);
    return std::string(value.substr(0, value.find_first_of(" ;")));
}

std::string commandLine(const std::vector<std::string>& words) {
    std::string line;
    for (const auto& word : words) line += (line.empty() ? "" : " ") + word;
    return line;
}

}  // namespace

std::string helperProgramBesideExecutable() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) return {};
    const fs::path beside = self.parent_path() / "vantorix-smartctl-helper";
    const fs::path installed = self.parent_path().parent_path() / "libexec" / "vantorix" / "vantorix-smartctl-helper";
    if (fs::exists(beside, error)) return beside.string();
    return installed.lexically_normal().string();
}

// ---- systemd -------------------------------------------------------------------------------

SystemdHelperService::SystemdHelperService(RegistrationPolicy policy, SystemdPrograms programs, uid_t effectiveUserId)
    : policy_(policy), programs_(std::move(programs)), effectiveUserId_(effectiveUserId) {}

std::string SystemdHelperService::mechanism() const { return fmt::format("systemd socket unit {}", kHelperSocketUnit); }

std::string SystemdHelperService::definitionName() const {
    return fmt::format("the unit file of {}", kHelperSocketUnit);
}

std::optional<std::string> SystemdHelperService::property(std::string_view unit, std::string_view name) {
    auto run = runCommand(
        {programs_.systemctl, "show", "--property=" + std::string(name), "--value", std::string(unit)}, 10000ms);
    if (!run.ok() || run.value().exitStatus != 0) {
        servicesLogger().error(
            "systemctl show {} of {} failed: {}", name, unit,
            run.ok() ? "status " + std::to_string(run.value().exitStatus) + " " + run.value().err : run.error());
        return std::nullopt;
    }
    std::string value = run.value().out;
    while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.pop_back();
    return value;
}

bool SystemdHelperService::canAskForAdministrator() const {
    const auto& pkexec = programs_.pkexec;
    bool found = pkexec.find('/') != std::string::npos && isExecutable(pkexec);
    if (!found) {
        const char* path = std::getenv("PATH");
        std::string_view directories = path != nullptr ? path : "/usr/bin:/bin";
        while (!found && !directories.empty()) {
            const auto end = directories.find(':');
            found = isExecutable(std::string(directories.substr(0, end)) + "/" + pkexec);
            directories = end == std::string_view::npos ? std::string_view() : directories.substr(end + 1);
        }
    }
    // pkexec asks through a desktop agent, or on the terminal.
    const bool someoneToAsk = ::isatty(STDIN_FILENO) == 1 || std::getenv("DISPLAY") != nullptr ||
                              std::getenv("WAYLAND_DISPLAY") != nullptr;
    return found && someoneToAsk;
}

// A program that only reads (a command asking for SMART data) never changes what the system
// starts, not even as root; one that may asks through pkexec when it is not root.
bool SystemdHelperService::mayChangeUnits() const {
    return policy_.mayRegister && (effectiveUserId_ == 0 || canAskForAdministrator());
}

std::optional<std::string> SystemdHelperService::definitionPath() {
    if (property(kHelperSocketUnit, "LoadState").value_or("") != "loaded") return std::nullopt;
    auto path = property(kHelperSocketUnit, "FragmentPath");
    if (!path || path->empty()) return std::nullopt;
    return path;
}

HelperService::HelperExecutable SystemdHelperService::helperExecutable() {
    std::string path = execStartPath(property(kHelperServiceUnit, "ExecStart").value_or(""));
    if (path.empty()) path = helperProgramBesideExecutable();
    return {path, isExecutable(path)};
}

HelperServiceState SystemdHelperService::state() {
    const auto loaded = property(kHelperSocketUnit, "LoadState");
    if (!loaded || *loaded == "not-found") return HelperServiceState::unitNotInstalled;
    const auto fileState = property(kHelperSocketUnit, "UnitFileState").value_or("");
    const auto active = property(kHelperSocketUnit, "ActiveState").value_or("");
    if ((fileState == "enabled" || fileState == "enabled-runtime") && active == "active") {
        return HelperServiceState::enabled;
    }
    return mayChangeUnits() ? HelperServiceState::notEnabled : HelperServiceState::needsAdministrator;
}

Result<Unit, HelperServiceError> SystemdHelperService::systemctl(const std::string& verb) {
    std::vector<std::string> command{programs_.systemctl, verb, "--now", std::string(kHelperSocketUnit)};
    if (!mayChangeUnits()) {
        return Failure{
            failure(HelperServiceFailure::needsAdministrator,
                    fmt::format("an administrator has to run: sudo systemctl {} --now {}", verb, kHelperSocketUnit))};
    }
    const bool throughPkexec = effectiveUserId_ != 0;
    if (throughPkexec) command.insert(command.begin(), programs_.pkexec);
    const std::string line = commandLine(command);
    servicesLogger().notice("Running {}", line);
    // pkexec waits for the user to answer; systemctl alone is quick.
    auto run = runCommand(command, throughPkexec ? std::nullopt : std::optional(60000ms));
    if (!run.ok()) return Failure{failure(HelperServiceFailure::commandFailed, line + ": " + run.error())};
    const auto& result = run.value();
    if (result.exitStatus == 0) return Unit{};
    // pkexec: 126 when the user dismissed the dialogue, 127 when not authorised or no agent answered.
    if (throughPkexec && (result.exitStatus == 126 || result.exitStatus == 127)) {
        return Failure{failure(HelperServiceFailure::needsAdministrator,
                               "the administrator password was not given for: " + line, result.err)};
    }
    return Failure{failure(HelperServiceFailure::commandFailed,
                           fmt::format("{} failed with status {}", line, result.exitStatus), result.err)};
}

std::string SystemdHelperService::socketPath() { return std::string(protocol::kDefaultSocketPath); }

// ---- standalone ----------------------------------------------------------------------------

StandaloneHelperService::StandaloneHelperService(std::string helperProgram, uid_t effectiveUserId)
    : helperProgram_(std::move(helperProgram)), effectiveUserId_(effectiveUserId) {}

StandaloneHelperService::~StandaloneHelperService() { stopHelper(); }

std::string StandaloneHelperService::mechanism() const {
    return "helper child process " + helperProgram_ + " on a private socket (no systemd)";
}

std::string StandaloneHelperService::definitionName() const { return "the helper program"; }

std::optional<std::string> StandaloneHelperService::definitionPath() {
    if (!isExecutable(helperProgram_)) return std::nullopt;
    return helperProgram_;
}

HelperService::HelperExecutable StandaloneHelperService::helperExecutable() {
    return {helperProgram_, isExecutable(helperProgram_)};
}

std::string StandaloneHelperService::socketPath() {
    std::lock_guard lock(mutex_);
    return folder_.empty() ? std::string() : folder_ + "/helper.sock";
}

std::optional<pid_t> StandaloneHelperService::helperProcessId() {
    std::lock_guard lock(mutex_);
    if (!child_ || !child_->running()) return std::nullopt;
    return child_->pid();
}

HelperServiceState StandaloneHelperService::state() {
    std::unique_lock lock(mutex_);
    if (child_ && child_->running() && helperListensAt(folder_ + "/helper.sock")) return HelperServiceState::enabled;
    lock.unlock();
    if (!isExecutable(helperProgram_)) return HelperServiceState::unitNotInstalled;
    return effectiveUserId_ == 0 ? HelperServiceState::notEnabled : HelperServiceState::needsAdministrator;
}

Result<Unit, HelperServiceError> StandaloneHelperService::enable() {
    if (effectiveUserId_ != 0) {
        return Failure{failure(HelperServiceFailure::needsAdministrator,
                               "without systemd, only a program running as root can start the SMART helper")};
    }
    stopHelper();
    std::lock_guard lock(mutex_);
    const auto didNotStart = [](std::string description) {
        return failure(HelperServiceFailure::helperDidNotStart, std::move(description));
    };
    std::string pattern = (::access("/run", W_OK) == 0 ? "/run" : "/tmp") + std::string("/vantorix-helper.XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr)
        return Failure{didNotStart("cannot make a folder for the helper's socket")};
    folder_ = pattern;  // mkdtemp makes it 0700: only root reaches the socket through it
    const std::string socket = folder_ + "/helper.sock";
    const std::vector<std::string> command{helperProgram_, "--socket", socket};
    servicesLogger().notice("Running {}", commandLine(command));
    auto child = ChildProcess::start(command);
    if (!child.ok()) {
        ::rmdir(folder_.c_str());
        folder_.clear();
        return Failure{didNotStart("cannot start " + helperProgram_ + ": " + child.error())};
    }
    child_.emplace(std::move(child).value());
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (helperListensAt(socket)) {
            servicesLogger().notice("The SMART helper (process {}) listens on {}", child_->pid(), socket);
            return Unit{};
        }
        if (!child_->running()) break;
        std::this_thread::sleep_for(10ms);
    }
    child_.reset();
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
    folder_.clear();
    return Failure{didNotStart("the SMART helper " + helperProgram_ + " did not start listening")};
}

Result<Unit, HelperServiceError> StandaloneHelperService::disable() {
    stopHelper();
    return Unit{};
}

void StandaloneHelperService::stopHelper() {
    std::lock_guard lock(mutex_);
    if (child_) {
        child_->stop();
        child_.reset();
    }
    if (!folder_.empty()) {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
        folder_.clear();
    }
}

// ---- external ------------------------------------------------------------------------------

std::string ExternalHelperService::mechanism() const {
    return fmt::format("helper socket {} ({})", socketPath_, protocol::kSocketEnvironmentVariable);
}

std::string ExternalHelperService::definitionName() const { return "the helper socket"; }

HelperServiceState ExternalHelperService::state() {
    return helperListensAt(socketPath_) ? HelperServiceState::enabled : HelperServiceState::needsAdministrator;
}

Result<Unit, HelperServiceError> ExternalHelperService::enable() {
    return Failure{
        failure(HelperServiceFailure::needsAdministrator, "no SMART helper running as root answers at " + socketPath_)};
}

Result<Unit, HelperServiceError> ExternalHelperService::disable() {
    return Failure{
        failure(HelperServiceFailure::notManagedHere, "the helper at " + socketPath_ + " is not run by Vantorix")};
}

}  // namespace vantorix
