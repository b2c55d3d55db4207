#include "support/Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "support/TemporaryFolder.h"

extern char** environ;

namespace vantorix::testing {
namespace {

// A temporary file, open (close-on-exec) at the descriptor returned; its path replaces `pattern`.
int temporaryFile(std::string& pattern) {
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("mkostemp failed");
    return fd;
}

// Starts the program with the environment applied, standard input from /dev/null and standard
// output and error on the descriptors given.
pid_t spawn(const std::vector<std::string>& argv, const Environment& environment, int out, int err) {
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
    std::vector<std::string> arguments = argv, variables;
    for (const auto& [name, value] : merged) variables.push_back(name + "=" + value);
    std::vector<char*> argp, envp;
    for (auto& argument : arguments) argp.push_back(argument.data());
    for (auto& variable : variables) envp.push_back(variable.data());
    argp.push_back(nullptr);
    envp.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(::open("/dev/null", O_RDONLY), 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        ::execve(argp[0], argp.data(), envp.data());
        std::fprintf(stderr, "exec %s: %s\n", argp[0], std::strerror(errno));
        ::_exit(127);
    }
    return pid;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const Environment& environment) {
    std::string outPath = "/tmp/vantorix-test-out-XXXXXX", errPath = "/tmp/vantorix-test-err-XXXXXX";
    const int out = temporaryFile(outPath), err = temporaryFile(errPath);
    ProcessResult result;
    result.exitStatus = waitForExit(spawn(argv, environment, out, err), std::chrono::hours(1)).value_or(-1);
    ::close(out);
    ::close(err);
    result.out = fileContents(outPath);
    result.err = fileContents(errPath);
    ::unlink(outPath.c_str());
    ::unlink(errPath.c_str());
    return result;
}

ProcessResult runShell(const std::string& command) { return runProcess({"/bin/sh", "-c", command}); }

std::unique_ptr<RunningProcess> RunningProcess::start(const std::vector<std::string>& argv,
                                                      const Environment& environment, bool errorsToOutput) {
    std::unique_ptr<RunningProcess> process(new RunningProcess());
    process->errPath_ = "/tmp/vantorix-test-err-XXXXXX";
    const int err = temporaryFile(process->errPath_);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    process->pid_ = spawn(argv, environment, out[1], errorsToOutput ? out[1] : err);
    ::close(out[1]);
    ::close(err);
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
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                std::chrono::steady_clock::now());
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
    if (!status_) status_ = testing::waitForExit(pid_, limit);
    return status_;
}

std::string RunningProcess::standardError() const { return fileContents(errPath_); }

std::optional<int> waitForExit(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        int status = 0;
        const pid_t reaped = ::waitpid(pid, &status, WNOHANG);
        if (reaped == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (reaped < 0) return -1;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    for (const auto until = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < until;
         std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        if (condition()) return true;
    }
    return condition();
}

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
