#include "support/Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vantorix::testing {
namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The null-terminated array of pointers that execve() takes, into `strings`.
std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

// This process's environment with the overrides applied, as "NAME=value" strings.
std::vector<std::string> mergedEnvironment(const std::map<std::string, std::optional<std::string>>& environment) {
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        const auto eq = entry.find('=');
        if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [name, value] : environment) {
        if (value) merged[name] = *value;
        else merged.erase(name);
    }
    std::vector<std::string> envStrings;
    for (const auto& [name, value] : merged) envStrings.push_back(name + "=" + value);
    return envStrings;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::optional<std::string>>& environment) {
    char outPath[] = "/tmp/vantorix-test-out-XXXXXX";
    char errPath[] = "/tmp/vantorix-test-err-XXXXXX";
    const int outFd = ::mkstemp(outPath);
    const int errFd = ::mkstemp(errPath);
    if (outFd < 0 || errFd < 0) throw std::runtime_error("mkstemp failed");

    std::vector<std::string> envStrings = mergedEnvironment(environment);
    std::vector<std::string> args = argv;
    const auto envp = pointers(envStrings);
    const auto argp = pointers(args);

    const pid_t pid = ::fork();
    if (pid == 0) {
        const int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, 0);
        ::dup2(outFd, 1);
        ::dup2(errFd, 2);
        ::execve(argp[0], argp.data(), envp.data());
        std::fprintf(stderr, "exec %s: %s\n", argp[0], std::strerror(errno));
        ::_exit(127);
    }
    ProcessResult result;
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ::close(outFd);
    ::close(errFd);
    result.out = slurp(outPath);
    result.err = slurp(errPath);
    ::unlink(outPath);
    ::unlink(errPath);
    return result;
}

ProcessResult runShell(const std::string& command) { return runProcess({"/bin/sh", "-c", command}); }

std::unique_ptr<RunningProcess> RunningProcess::start(const std::vector<std::string>& argv,
                                                     const std::map<std::string, std::optional<std::string>>& environment,
                                                     bool errorsToOutput) {
    std::unique_ptr<RunningProcess> process(new RunningProcess());
    char errPath[] = "/tmp/vantorix-test-err-XXXXXX";
    const int errFd = ::mkstemp(errPath);
    int out[2];
    if (errFd < 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("mkstemp or pipe failed");
    process->errPath_ = errPath;
    std::vector<std::string> envStrings = mergedEnvironment(environment);
    std::vector<std::string> args = argv;
    const auto envp = pointers(envStrings);
    const auto argp = pointers(args);
    process->pid_ = ::fork();
    if (process->pid_ == 0) {
        const int devNull = ::open("/dev/null", O_RDONLY);
        ::dup2(devNull, 0);
        ::dup2(out[1], 1);
        ::dup2(errorsToOutput ? out[1] : errFd, 2);
        ::execve(argp[0], argp.data(), envp.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(errFd);
    process->out_ = out[0];
    return process;
}

RunningProcess::~RunningProcess() {
    if (!status_) {
        ::kill(pid_, SIGKILL);
        (void)waitForExit(std::chrono::seconds(10));
    }
    if (out_ >= 0) ::close(out_);
    ::unlink(errPath_.c_str());
}

std::optional<std::string> RunningProcess::readLine(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (const auto newline = pending_.find('\n'); newline != std::string::npos) {
            std::string line = pending_.substr(0, newline);
            pending_.erase(0, newline + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd ready{out_, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[4096];
        const ssize_t n = ::read(out_, buffer, sizeof(buffer));
        if (n <= 0) return std::nullopt;
        pending_.append(buffer, static_cast<std::size_t>(n));
    }
}

void RunningProcess::signal(int number) const { ::kill(pid_, number); }

void RunningProcess::closeOutput() {
    if (out_ >= 0) ::close(out_);
    out_ = -1;
}

std::optional<int> RunningProcess::waitForExit(std::chrono::milliseconds limit) {
    if (status_) return status_;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    do {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return status_;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

std::string RunningProcess::standardError() const { return slurp(errPath_); }

int freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

}  // namespace vantorix::testing
