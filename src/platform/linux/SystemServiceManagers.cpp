#include "platform/linux/SystemServiceManagers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "log/Log.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr std::string_view kSystemdErrorDomain = "com.vantorix.ServiceManager.systemd";
constexpr std::string_view kStandaloneErrorDomain = "com.vantorix.ServiceManager.standalone";

const log::Logger& logger() { return log::logger("PrivilegedHelperManager"); }

bool isExecutable(const std::string& path) { return !path.empty() && ::access(path.c_str(), X_OK) == 0; }

ServiceError approvalRequired(std::string description) {
    return ServiceError{std::string(kServiceManagerErrorDomain), kApprovalRequiredCode, std::move(description), ""};
}

// The program path of a unit's ExecStart as systemctl shows it: "{ path=/usr/libexec/x ; argv[]=… }".
std::string execStartPath(std::string_view shown) {
    const auto start = shown.find("path=");
    if (start == std::string_view::npos) return {};
    const auto value = shown.substr(start + 5);
    return std::string(value.substr(0, value.find_first_of(" ;")));
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

class SystemdServiceManager::Service final : public DaemonService {
public:
    Service(SystemdServiceManager& owner, std::string unit) : owner_(owner), unit_(std::move(unit)) {}

    int status() override {
        const auto loaded = owner_.property(unit_, "LoadState");
        if (!loaded || *loaded == "not-found") return static_cast<int>(ServiceStatus::notFound);
        const auto fileState = owner_.property(unit_, "UnitFileState").value_or("");
        const auto active = owner_.property(unit_, "ActiveState").value_or("");
        if ((fileState == "enabled" || fileState == "enabled-runtime") && active == "active") {
            return static_cast<int>(ServiceStatus::enabled);
        }
        if (owner_.policy_.mayRegister && (owner_.effectiveUserId_ == 0 || owner_.canAskForAdministrator())) {
            return static_cast<int>(ServiceStatus::notRegistered);
        }
        return static_cast<int>(ServiceStatus::requiresApproval);
    }

    Result<Unit, ServiceError> registerService() override { return systemctl("enable"); }
    Result<Unit, ServiceError> unregisterService() override { return systemctl("disable"); }

private:
    Result<Unit, ServiceError> systemctl(const std::string& verb) {
        std::vector<std::string> command{owner_.programs_.systemctl, verb, "--now", unit_};
        // A program that only reads (a command asking for SMART data) never changes what the system
        // starts, not even as root.
        if (!owner_.policy_.mayRegister || (owner_.effectiveUserId_ != 0 && !owner_.canAskForAdministrator())) {
            return Failure{approvalRequired("An administrator has to run: sudo systemctl " + verb + " --now " + unit_)};
        }
        if (owner_.effectiveUserId_ != 0) command.insert(command.begin(), owner_.programs_.pkexec);
        std::string line;
        for (const auto& word : command) line += (line.empty() ? "" : " ") + word;
        // pkexec waits for the user to answer; systemctl alone is quick.
        auto run = runCommand(command, owner_.effectiveUserId_ == 0 ? std::optional(60000ms) : std::nullopt);
        if (!run.ok()) return Failure{ServiceError{std::string(kSystemdErrorDomain), -1, line + ": " + run.error(), ""}};
        const auto& result = run.value();
        if (result.exitStatus == 0) return Unit{};
        // pkexec: 126 when the user dismissed the dialogue, 127 when not authorised or no agent answered.
        if (command.front() == owner_.programs_.pkexec && (result.exitStatus == 126 || result.exitStatus == 127)) {
            return Failure{ServiceError{std::string(kServiceManagerErrorDomain), kApprovalRequiredCode,
                                        "The administrator password was not given for: " + line, result.err}};
        }
        return Failure{ServiceError{std::string(kSystemdErrorDomain), result.exitStatus,
                                    line + " failed with status " + std::to_string(result.exitStatus), result.err}};
    }

    SystemdServiceManager& owner_;
    std::string unit_;
};

SystemdServiceManager::SystemdServiceManager(RegistrationPolicy policy, Programs programs, uid_t effectiveUserId)
    : policy_(policy), programs_(std::move(programs)), effectiveUserId_(effectiveUserId) {}

std::optional<std::string> SystemdServiceManager::property(std::string_view unit, std::string_view name) {
    auto run = runCommand({programs_.systemctl, "show", "--property=" + std::string(name), "--value", std::string(unit)}, 10000ms);
    if (!run.ok() || run.value().exitStatus != 0) {
        logger().error("systemctl show {} of {} failed: {}", name, unit,
                       run.ok() ? "status " + std::to_string(run.value().exitStatus) + " " + run.value().err : run.error());
        return std::nullopt;
    }
    std::string value = run.value().out;
    while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.pop_back();
    return value;
}

bool SystemdServiceManager::canAskForAdministrator() const {
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

std::optional<std::string> SystemdServiceManager::definitionPath(std::string_view definitionName) {
    if (property(definitionName, "LoadState").value_or("") != "loaded") return std::nullopt;
    auto path = property(definitionName, "FragmentPath");
    if (!path || path->empty()) return std::nullopt;
    return path;
}

ServiceManager::HelperExecutable SystemdServiceManager::helperExecutable() {
    std::string path = execStartPath(property(kHelperServiceUnit, "ExecStart").value_or(""));
    if (path.empty()) path = helperProgramBesideExecutable();
    return {path, isExecutable(path)};
}

std::shared_ptr<DaemonService> SystemdServiceManager::daemonService(std::string_view definitionName) {
    return std::make_shared<Service>(*this, std::string(definitionName));
}

std::string SystemdServiceManager::socketPath() { return std::string(protocol::kDefaultSocketPath); }

// ---- standalone ----------------------------------------------------------------------------

class StandaloneServiceManager::Service final : public DaemonService {
public:
    explicit Service(StandaloneServiceManager& owner) : owner_(owner) {}
    int status() override { return owner_.status(); }
    Result<Unit, ServiceError> registerService() override { return owner_.startHelper(); }
    Result<Unit, ServiceError> unregisterService() override {
        owner_.stopHelper();
        return Unit{};
    }

private:
    StandaloneServiceManager& owner_;
};

StandaloneServiceManager::StandaloneServiceManager(std::string helperProgram, uid_t effectiveUserId)
    : helperProgram_(std::move(helperProgram)), effectiveUserId_(effectiveUserId) {}

StandaloneServiceManager::~StandaloneServiceManager() { stopHelper(); }

std::optional<std::string> StandaloneServiceManager::definitionPath(std::string_view) {
    if (!isExecutable(helperProgram_)) return std::nullopt;
    return helperProgram_;
}

ServiceManager::HelperExecutable StandaloneServiceManager::helperExecutable() {
    return {helperProgram_, isExecutable(helperProgram_)};
}

std::shared_ptr<DaemonService> StandaloneServiceManager::daemonService(std::string_view) {
    return std::make_shared<Service>(*this);
}

std::string StandaloneServiceManager::socketPath() {
    std::lock_guard lock(mutex_);
    return folder_.empty() ? std::string() : folder_ + "/helper.sock";
}

std::optional<pid_t> StandaloneServiceManager::helperProcessId() {
    std::lock_guard lock(mutex_);
    if (!child_ || !child_->running()) return std::nullopt;
    return child_->pid();
}

int StandaloneServiceManager::status() {
    std::unique_lock lock(mutex_);
    if (child_ && child_->running() && helperListensAt(folder_ + "/helper.sock")) {
        return static_cast<int>(ServiceStatus::enabled);
    }
    lock.unlock();
    if (!isExecutable(helperProgram_)) return static_cast<int>(ServiceStatus::notFound);
    return effectiveUserId_ == 0 ? static_cast<int>(ServiceStatus::notRegistered)
                                 : static_cast<int>(ServiceStatus::requiresApproval);
}

Result<Unit, ServiceError> StandaloneServiceManager::startHelper() {
    if (effectiveUserId_ != 0) {
        return Failure{approvalRequired("Without systemd, only a program running as root can start the SMART helper")};
    }
    stopHelper();
    std::lock_guard lock(mutex_);
    const auto fail = [](std::string description) {
        return ServiceError{std::string(kStandaloneErrorDomain), 1, std::move(description), ""};
    };
    std::string pattern = (::access("/run", W_OK) == 0 ? "/run" : "/tmp") + std::string("/vantorix-helper.XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) return Failure{fail("Cannot make a folder for the helper's socket")};
    folder_ = pattern;  // mkdtemp makes it 0700: only root reaches the socket through it
    const std::string socket = folder_ + "/helper.sock";
    auto child = ChildProcess::start({helperProgram_, "--socket", socket});
    if (!child.ok()) {
        ::rmdir(folder_.c_str());
        folder_.clear();
        return Failure{fail("Cannot start " + helperProgram_ + ": " + child.error())};
    }
    child_.emplace(std::move(child).value());
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (helperListensAt(socket)) {
            logger().notice("Started the SMART helper {} (process {}) on {}", helperProgram_, child_->pid(), socket);
            return Unit{};
        }
        if (!child_->running()) break;
        std::this_thread::sleep_for(10ms);
    }
    child_.reset();
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
    folder_.clear();
    return Failure{fail("The SMART helper " + helperProgram_ + " did not start listening")};
}

void StandaloneServiceManager::stopHelper() {
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

class ExternalHelperServiceManager::Service final : public DaemonService {
public:
    explicit Service(std::string socketPath) : socketPath_(std::move(socketPath)) {}
    int status() override {
        return static_cast<int>(helperListensAt(socketPath_) ? ServiceStatus::enabled : ServiceStatus::requiresApproval);
    }
    Result<Unit, ServiceError> registerService() override {
        return Failure{approvalRequired("No SMART helper running as root answers at " + socketPath_)};
    }
    Result<Unit, ServiceError> unregisterService() override {
        return Failure{ServiceError{std::string(kServiceManagerErrorDomain), 2,
                                    "The helper at " + socketPath_ + " is not managed by Vantorix", ""}};
    }

private:
    std::string socketPath_;
};

std::shared_ptr<DaemonService> ExternalHelperServiceManager::daemonService(std::string_view) {
    return std::make_shared<Service>(socketPath_);
}

std::shared_ptr<ServiceManager> makeSystemServiceManager(RegistrationPolicy policy) {
    const char* external = std::getenv(std::string(protocol::kSocketEnvironmentVariable).c_str());
    if (external != nullptr && *external != '\0') return std::make_shared<ExternalHelperServiceManager>(external);
    struct stat info {};
    if (::stat("/run/systemd/system", &info) == 0 && S_ISDIR(info.st_mode)) {
        return std::make_shared<SystemdServiceManager>(policy);
    }
    return std::make_shared<StandaloneServiceManager>(helperProgramBesideExecutable());
}

}  // namespace vantorix
