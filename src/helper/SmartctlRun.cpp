#include "helper/SmartctlRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <fmt/format.h>
#include <asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "log/Log.h"

namespace vantorix::helper {
namespace {

using protocol::HelperFailure;

const log::Logger& runLogger() { return log::logger("PrivilegedSmartctlHelper"); }

constexpr std::size_t kReadChunkBytes = std::size_t{64} * 1024;

// A pipe whose ends are closed on exec; the child gets its write end through dup2.
struct Pipe {
    int read = -1;
    int write = -1;
    bool open() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return false;
        read = ends[0];
        write = ends[1];
        return true;
    }
    void close() {
        for (int* end : {&read, &write}) {
            if (*end >= 0) ::close(*end);
            *end = -1;
        }
    }
};

// Starts argv[0] with standard input from /dev/null, standard output and error into the pipes,
// nothing else open, default signal dispositions, an empty signal mask, its own process group and
// a fixed environment. Returns 0 or the error number of the failure.
int spawn(const std::vector<std::string>& argv, const Pipe& output, const Pipe& errors, pid_t* pid) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const auto& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char locale[] = "LC_ALL=C";
    char* environment[] = {path, locale, nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (int error = ::posix_spawn_file_actions_init(&actions); error != 0) return error;
    if (int error = ::posix_spawnattr_init(&attributes); error != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        return error;
    }
    sigset_t empty;
    sigset_t all;
    sigemptyset(&empty);
    sigfillset(&all);
    int error = ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (error == 0) error = ::posix_spawn_file_actions_adddup2(&actions, output.write, 1);
    if (error == 0) error = ::posix_spawn_file_actions_adddup2(&actions, errors.write, 2);
    if (error == 0) error = ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (error == 0) {
        error = ::posix_spawnattr_setflags(&attributes,
                                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    if (error == 0) error = ::posix_spawnattr_setpgroup(&attributes, 0);
    if (error == 0) error = ::posix_spawnattr_setsigmask(&attributes, &empty);
    if (error == 0) error = ::posix_spawnattr_setsigdefault(&attributes, &all);
    if (error == 0) error = ::posix_spawn(pid, arguments[0], &actions, &attributes, arguments.data(), environment);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return error;
}

// A descriptor that becomes readable when the process ends (close-on-exec). Called through
// syscall(): the C library's declaration lacks C linkage in C++ on some releases.
int openPidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)); }

std::string joined(const std::vector<std::string>& argv) {
    std::string text;
    for (const auto& argument : argv) {
        if (!text.empty()) text += ' ';
        text += argument;
    }
    return text;
}

}  // namespace

SmartctlRun::SmartctlRun(asio::io_context& io, std::vector<std::string> argv, const RunLimits& limits,
                         Handlers handlers)
    : io_(io),
      argv_(std::move(argv)),
      limits_(limits),
      handlers_(std::move(handlers)),
      commandDescription_(joined(argv_)),
      output_(io),
      errors_(io),
      process_(io),
      deadline_(io) {
    output_.limit = limits_.maximumOutputBytes;
    errors_.limit = limits_.maximumErrorBytes;
}

SmartctlRun::~SmartctlRun() {
    // Only when the io_context goes away with the child still being watched.
    if (pid_ > 0 && !exited_) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, WNOHANG);
    }
}

std::shared_ptr<SmartctlRun> SmartctlRun::start(asio::io_context& io, std::vector<std::string> argv,
                                                const RunLimits& limits, Handlers handlers) {
    std::shared_ptr<SmartctlRun> run(new SmartctlRun(io, std::move(argv), limits, std::move(handlers)));
    run->launch();
    return run;
}

void SmartctlRun::launch() {
    startedAt_ = std::chrono::steady_clock::now();
    const auto failLater = [this](std::string description) {
        exited_ = true;  // there is no child to wait for
        asio::post(io_, [self = shared_from_this(), description = std::move(description)] {
            self->answer(protocol::helperError(HelperFailure::launchFailed, description));
        });
    };
    Pipe output;
    Pipe errors;
    if (!output.open() || !errors.open()) {
        const int error = errno;
        output.close();
        errors.close();
        runLogger().error("Cannot make pipes for smartctl: {}", std::generic_category().message(error));
        failLater(fmt::format("Cannot start {}: {}.", argv_.front(), std::generic_category().message(error)));
        return;
    }
    const int spawnError = spawn(argv_, output, errors, &pid_);
    ::close(output.write);
    ::close(errors.write);
    if (spawnError != 0) {
        pid_ = -1;
        ::close(output.read);
        ::close(errors.read);
        runLogger().error("Cannot start {}: {}", commandDescription_, std::generic_category().message(spawnError));
        failLater(fmt::format("Cannot start {}: {}.", argv_.front(), std::generic_category().message(spawnError)));
        return;
    }
    output_.descriptor.assign(output.read);
    errors_.descriptor.assign(errors.read);
    const int pidfd = openPidfd(pid_);
    if (pidfd < 0) {
        // Without a pidfd the child cannot be watched; it has only just started, so it ends at once.
        const int openError = errno;
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        output_.descriptor.close();
        errors_.descriptor.close();
        runLogger().error("Cannot watch smartctl (pid {}): pidfd_open: {}", pid_,
                          std::generic_category().message(openError));
        failLater(fmt::format("Cannot watch {}: {}.", argv_.front(), std::generic_category().message(openError)));
        return;
    }
    process_.assign(pidfd);
    runLogger().debug("Started {} (pid {})", commandDescription_, pid_);
    read(output_);
    read(errors_);
    watchChild();
    deadline_.expires_after(limits_.timeout);
    deadline_.async_wait([self = shared_from_this()](const asio::error_code& error) {
        if (error || self->answered_) return;
        runLogger().error("smartctl for {} (pid {}) ran longer than {} ms; killed", self->argv_.back(), self->pid_,
                          self->limits_.timeout.count());
        self->killChild(protocol::helperError(
            HelperFailure::timedOut,
            fmt::format("smartctl did not finish within {} ms and was stopped.", self->limits_.timeout.count())));
    });
}

void SmartctlRun::read(Capture& capture) {
    // Room for one byte past the limit, which tells that the child wrote too much.
    const std::size_t have = capture.bytes.size();
    const std::size_t chunk = std::min(kReadChunkBytes, capture.limit + 1 - have);
    capture.bytes.resize(have + chunk);
    capture.descriptor.async_read_some(
        asio::buffer(capture.bytes.data() + have, chunk),
        [self = shared_from_this(), &capture, have](const asio::error_code& error, std::size_t count) {
            if (self->answered_) return;
            capture.bytes.resize(have + count);
            if (error) {  // end of file: the child and everything it started closed the pipe
                capture.ended = true;
                capture.descriptor.close();
                self->completeIfDone();
                return;
            }
            if (capture.bytes.size() > capture.limit) {
                const bool isOutput = &capture == &self->output_;
                runLogger().error("smartctl for {} (pid {}) wrote more than {} bytes to standard {}; killed",
                                  self->argv_.back(), self->pid_, capture.limit, isOutput ? "output" : "error");
                self->killChild(protocol::helperError(
                    HelperFailure::outputTooLarge,
                    fmt::format("smartctl wrote more than {} bytes to standard {} and was stopped.", capture.limit,
                                isOutput ? "output" : "error")));
                return;
            }
            self->read(capture);
        });
}

void SmartctlRun::watchChild() {
    process_.async_wait(asio::posix::descriptor_base::wait_read,
                        [self = shared_from_this()](const asio::error_code& error) {
                            if (error) return;  // the io_context is shutting down
                            int status = 0;
                            const pid_t reaped = ::waitpid(self->pid_, &status, WNOHANG);
                            if (reaped == 0) {
                                self->watchChild();
                                return;
                            }
                            self->exited_ = true;
                            self->process_.close();
                            if (reaped < 0) self->terminationStatus_ = -1;
                            else if (WIFEXITED(status)) self->terminationStatus_ = WEXITSTATUS(status);
                            else self->terminationStatus_ = 128 + WTERMSIG(status);
                            if (!self->answered_) {
                                self->completeIfDone();
                                return;
                            }
                            const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - self->startedAt_);
                            runLogger().debug("Stopped smartctl for {} (pid {}) reaped {} ms after its start",
                                              self->argv_.back(), self->pid_, elapsed.count());
                            if (auto reapedHandler = std::exchange(self->handlers_.reaped, nullptr)) reapedHandler();
                        });
}

void SmartctlRun::completeIfDone() {
    if (answered_ || !exited_ || !output_.ended || !errors_.ended) return;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                               startedAt_);
    runLogger().debug(
        "smartctl for {} finished after {} ms with exit status {}: {} bytes of output, {} bytes of errors",
        argv_.back(), elapsed.count(), terminationStatus_, output_.bytes.size(), errors_.bytes.size());
    SmartctlExecutionResult result;
    result.jsonData = std::move(output_.bytes);
    result.standardError = std::move(errors_.bytes);
    result.commandDescription = commandDescription_;
    result.terminationStatus = terminationStatus_;
    answer(Outcome(std::move(result)));
}

void SmartctlRun::killChild(protocol::HelperError error) {
    if (answered_) return;
    // The group: smartctl does not fork, but a program standing in for it may.
    if (pid_ > 0) ::kill(-pid_, SIGKILL);
    answer(error);
}

void SmartctlRun::answer(const Outcome& outcome) {
    answered_ = true;
    deadline_.cancel();
    asio::error_code ignored;
    output_.descriptor.close(ignored);
    errors_.descriptor.close(ignored);
    output_.bytes = std::string();
    errors_.bytes = std::string();
    if (auto finished = std::exchange(handlers_.finished, nullptr)) finished(outcome);
    if (exited_) {
        if (auto reaped = std::exchange(handlers_.reaped, nullptr)) reaped();
    }
}

void SmartctlRun::abandon() {
    if (pid_ > 0 && !exited_) ::kill(-pid_, SIGKILL);
    handlers_ = {};
    if (!answered_) answer(protocol::helperError(HelperFailure::internalFailure, "The helper is stopping."));
}

}  // namespace vantorix::helper
