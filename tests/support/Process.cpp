#include "support/Process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace vantorix::testing {
namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::optional<std::string>>& environment) {
    char outPath[] = "/tmp/vantorix-test-out-XXXXXX";
    char errPath[] = "/tmp/vantorix-test-err-XXXXXX";
    const int outFd = ::mkstemp(outPath);
    const int errFd = ::mkstemp(errPath);
    if (outFd < 0 || errFd < 0) throw std::runtime_error("mkstemp failed");

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
    std::vector<char*> envp;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& s : args) argp.push_back(s.data());
    argp.push_back(nullptr);

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

}  // namespace vantorix::testing
