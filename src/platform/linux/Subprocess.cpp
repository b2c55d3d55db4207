#include "platform/linux/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <array>
#include <cerrno>
#include <system_error>
#include <thread>

extern char** environ;

namespace vantorix {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

int exitStatusOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

class Pipe {
public:
    Pipe() {
        if (::pipe2(fds_.data(), O_CLOEXEC) != 0) fds_ = {-1, -1};
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    bool ok() const { return fds_[0] >= 0; }
    int read() const { return fds_[0]; }
    int write() const { return fds_[1]; }
    void closeRead() { closeAt(0); }
    void closeWrite() { closeAt(1); }

private:
    void closeAt(std::size_t i) {
        if (fds_[i] >= 0) ::close(fds_[i]);
        fds_[i] = -1;
    }
    std::array<int, 2> fds_{};
};

}  // namespace

Result<CommandResult, std::string> runCommand(const std::vector<std::string>& argv,
                                              std::optional<std::chrono::milliseconds> timeout) {
    if (argv.empty()) return Failure{std::string("no program given")};
    Pipe out, err;
    if (!out.ok() || !err.ok()) return Failure{std::string("pipe: ") + std::generic_category().message(errno)};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.write(), 1);
    posix_spawn_file_actions_adddup2(&actions, err.write(), 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP}) sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> arguments = argv;
    auto argp = pointers(arguments);
    pid_t pid = -1;
    const int spawned = ::posix_spawnp(&pid, argp[0], &actions, &attributes, argp.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) return Failure{argv[0] + ": " + std::generic_category().message(spawned)};
    out.closeWrite();
    err.closeWrite();

    CommandResult result;
    const std::optional<Clock::time_point> deadline = timeout
                                                          ? std::optional<Clock::time_point>(Clock::now() + *timeout)
                                                          : std::nullopt;
    std::array<pollfd, 2> polled{pollfd{out.read(), POLLIN, 0}, pollfd{err.read(), POLLIN, 0}};
    std::array<std::string*, 2> sinks{&result.out, &result.err};
    bool killed = false;
    while (polled[0].fd >= 0 || polled[1].fd >= 0) {
        int wait = -1;
        if (deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count();
            wait = static_cast<int>(std::max<long long>(0, left));
        }
        const int ready = ::poll(polled.data(), polled.size(), wait);
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) {  // out of time: the output pipes may be held open by grandchildren too
            ::kill(pid, SIGKILL);
            killed = true;
            break;
        }
        for (std::size_t i = 0; i < polled.size(); ++i) {
            if (polled[i].fd < 0 || polled[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(polled[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                const std::size_t room = kCommandOutputLimit - std::min(kCommandOutputLimit, sinks[i]->size());
                sinks[i]->append(buffer, std::min(room, static_cast<std::size_t>(n)));
            } else if (n == 0 || errno != EINTR) {
                polled[i].fd = -1;
            }
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitStatus = killed ? 128 + SIGKILL : exitStatusOf(status);
    return result;
}

Result<ChildProcess, std::string> ChildProcess::start(const std::vector<std::string>& argv) {
    if (argv.empty()) return Failure{std::string("no program given")};
    std::vector<std::string> arguments = argv;
    auto argp = pointers(arguments);
    const pid_t parent = ::getpid();
    // Everything the child needs is prepared before fork(): after it, in a process with threads,
    // the child may only call async-signal-safe functions.
    const pid_t pid = ::fork();
    if (pid < 0) return Failure{std::string("fork: ") + std::generic_category().message(errno)};
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(127);  // the parent ended before the line above
        ::setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        // The child has one thread, and sigprocmask is async-signal-safe (pthread_sigmask is not
        // listed as such). Nothing can be done here when either fails.
        ::sigprocmask(SIG_SETMASK, &none, nullptr);  // NOLINT(concurrency-mt-unsafe): one thread here
        for (int signal : {SIGINT, SIGTERM, SIGPIPE, SIGHUP}) (void)::signal(signal, SIG_DFL);
        const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (devNull >= 0) ::dup2(devNull, 0);
        ::execv(argp[0], argp.data());
        ::_exit(127);
    }
    return ChildProcess(pid);
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    if (this != &other) {
        stop();
        pid_ = std::exchange(other.pid_, -1);
    }
    return *this;
}

ChildProcess::~ChildProcess() { stop(); }

bool ChildProcess::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    const pid_t reaped = ::waitpid(pid_, &status, WNOHANG);
    if (reaped == 0) return true;
    pid_ = -1;
    return false;
}

void ChildProcess::stop(std::chrono::milliseconds grace) {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    const auto deadline = Clock::now() + grace;
    while (running() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
}

}  // namespace vantorix
