#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "helper/HelperServer.h"
#include "helper/ListeningSocket.h"
#include "log/Log.h"

using namespace vantorix;

namespace {

constexpr int kUsage = 2;
constexpr int kFailure = 1;
// How long a stopping daemon waits for the children it killed to be reaped.
constexpr std::chrono::milliseconds kReapGrace{2000};
constexpr std::chrono::milliseconds kReapPoll{20};

const log::Logger& mainLogger() { return log::logger("PrivilegedSmartctlHelper"); }

int fail(int status, const std::string& message) {
    std::cerr << "vantorix-smartctl-helper: " << message << '\n';
    return status;
}

// Descriptors 0 to 2 must be open, or a pipe made for smartctl could land on one of them.
void openStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0) {
            const int opened = ::open("/dev/null", O_RDWR);
            if (opened >= 0 && opened != fd) ::close(opened);
        }
    }
}

// Blocks of 128 KiB and more (smartctl's captured output, the replies) are mapped on their own and
// go back to the system when freed, and free memory at the top of the heap is returned beyond
// 128 KiB. Left to itself, malloc raises both thresholds after the first large block is freed and
// keeps what a burst of large replies took.
void returnFreedMemory() {
    constexpr int kThresholdBytes = 128 * 1024;
    ::mallopt(M_MMAP_THRESHOLD, kThresholdBytes);  // NOLINT(concurrency-mt-unsafe): runs before any thread exists
    ::mallopt(M_TRIM_THRESHOLD, kThresholdBytes);  // NOLINT(concurrency-mt-unsafe): runs before any thread exists
}

// What the command line asks for. `exitIdle` applies only to a socket systemd passed: such a
// daemon is started again on the next connection.
struct Options {
    std::string socketPath;
    helper::HelperSettings settings;
    std::chrono::milliseconds exitIdle{60000};
};

// Reads the command line into `options`. Returns the status to exit with when the program ends
// here (help, version, a wrong option), nothing when it goes on.
std::optional<int> parseCommandLine(int argc, char** argv, Options& options) {
    CLI::App app{"Runs smartctl for validated device names on behalf of Vantorix (root, socket-activated by systemd)",
                 "vantorix-smartctl-helper"};
    app.set_version_flag("--version", std::string(VANTORIX_VERSION));
    helper::HelperSettings& settings = options.settings;
    settings.version = VANTORIX_VERSION;
    std::int64_t runTimeoutMs = settings.limits.timeout.count();
    std::int64_t idleTimeoutMs = settings.clientIdleTimeout.count();
    std::int64_t exitIdleMs = options.exitIdle.count();
    std::int64_t shareWindowMs = settings.shareWindow.count();
    app.add_option("--socket", options.socketPath,
                   "Listen on this Unix socket (when not started by systemd socket activation)")
        ->type_name("PATH");
    // For tests: what runs, where devices are looked up, and the time limits.
    app.add_option("--smartctl", settings.smartctl)->group("");
    app.add_option("--sysfs-root", settings.roots.sysfs)->group("");
    app.add_option("--dev-root", settings.roots.dev)->group("");
    app.add_option("--run-timeout-ms", runTimeoutMs)->check(CLI::PositiveNumber)->group("");
    app.add_option("--idle-timeout-ms", idleTimeoutMs)->check(CLI::PositiveNumber)->group("");
    app.add_option("--exit-idle-ms", exitIdleMs)->check(CLI::PositiveNumber)->group("");
    app.add_option("--share-window-ms", shareWindowMs)->check(CLI::NonNegativeNumber)->group("");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : kUsage;
    }
    settings.limits.timeout = std::chrono::milliseconds(runTimeoutMs);
    settings.clientIdleTimeout = std::chrono::milliseconds(idleTimeoutMs);
    settings.shareWindow = std::chrono::milliseconds(shareWindowMs);
    options.exitIdle = std::chrono::milliseconds(exitIdleMs);
    return std::nullopt;
}

// Gives `acceptor` the socket systemd passed, or the one --socket names, made here and kept in
// `socketFile`. Returns the status to exit with when there is no socket to listen on.
std::optional<int> takeSocket(asio::local::stream_protocol::acceptor& acceptor, Options& options,
                              std::unique_ptr<helper::SocketFile>& socketFile) {
    auto activated = helper::activatedSocket();
    if (!activated) return fail(kUsage, activated.error());
    if (*activated >= 0) {
        if (!options.socketPath.empty()) return fail(kUsage, "--socket cannot be used when systemd passes the socket");
        acceptor.assign(asio::local::stream_protocol(), *activated);
        options.settings.exitWhenIdle = options.exitIdle;
        mainLogger().notice("vantorix-smartctl-helper {} listening on the socket systemd passed", VANTORIX_VERSION);
    } else if (!options.socketPath.empty()) {
        auto created = helper::SocketFile::create(options.socketPath);
        if (!created) return fail(kFailure, created.error());
        socketFile = std::move(*created);
        acceptor.assign(asio::local::stream_protocol(), socketFile->release());
        mainLogger().notice("vantorix-smartctl-helper {} listening on {}", VANTORIX_VERSION, options.socketPath);
    } else {
        return fail(
            kUsage,
            "no socket to listen on: start it through vantorix-smartctl-helper.socket (systemd), or pass --socket PATH");
    }
    return std::nullopt;
}

// Serves on `acceptor` until SIGTERM or SIGINT, or until the server asks to stop (a daemon systemd
// started, idle long enough).
void serve(asio::io_context& io, asio::local::stream_protocol::acceptor acceptor,
           const helper::HelperSettings& settings) {
    asio::signal_set signals(io, SIGTERM, SIGINT);
    asio::steady_timer reapTimer(io);
    std::function<void()> shutdown;
    helper::HelperServer server(io, std::move(acceptor), settings, [&] { shutdown(); });

    // Stops the server, then gives the killed children a moment to be reaped before leaving.
    std::chrono::steady_clock::time_point reapDeadline;
    std::function<void()> waitForChildren = [&] {
        if (server.childrenEnded() || std::chrono::steady_clock::now() >= reapDeadline) {
            io.stop();
            return;
        }
        reapTimer.expires_after(kReapPoll);
        reapTimer.async_wait([&](const asio::error_code& error) {
            if (!error) waitForChildren();
        });
    };
    shutdown = [&] {
        server.stop();
        asio::error_code ignored;
        signals.cancel(ignored);
        reapDeadline = std::chrono::steady_clock::now() + kReapGrace;
        waitForChildren();
    };
    signals.async_wait([&](const asio::error_code& error, int signal) {
        if (error) return;
        mainLogger().notice("Stopping on signal {}", signal);
        shutdown();
    });

    server.start();
    io.run();
    mainLogger().notice("vantorix-smartctl-helper exiting");
}

int run(int argc, char** argv) {
    Options options;
    if (const auto status = parseCommandLine(argc, argv, options)) return *status;

    returnFreedMemory();
    openStandardDescriptors();
    // Setting a valid signal's disposition cannot fail.
    (void)std::signal(SIGPIPE, SIG_IGN);  // smartctl gets default dispositions back when it starts
    (void)std::signal(SIGCHLD, SIG_DFL);  // an inherited SIG_IGN would reap children behind the pidfds' back

    asio::io_context io;
    asio::local::stream_protocol::acceptor acceptor(io);
    std::unique_ptr<helper::SocketFile> socketFile;
    if (const auto status = takeSocket(acceptor, options, socketFile)) return *status;
    serve(io, std::move(acceptor), options.settings);
    return 0;
}

}  // namespace

// What throws here is the system refusing a resource (memory, a descriptor, the event loop's
// epoll): the helper says why on standard error, which systemd keeps in the journal, and fails.
int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        return fail(kFailure, error.what());
    } catch (...) {
        return fail(kFailure, "stopped by an unknown exception");
    }
}
