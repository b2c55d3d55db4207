#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
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
    ::mallopt(M_MMAP_THRESHOLD, kThresholdBytes);
    ::mallopt(M_TRIM_THRESHOLD, kThresholdBytes);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Runs smartctl for validated device names on behalf of Vantorix (root, socket-activated by systemd)",
                 "vantorix-smartctl-helper"};
    app.set_version_flag("--version", std::string(VANTORIX_VERSION));
    std::string socketPath;
    helper::HelperSettings settings;
    settings.version = VANTORIX_VERSION;
    std::int64_t runTimeoutMs = settings.limits.timeout.count();
    std::int64_t idleTimeoutMs = settings.clientIdleTimeout.count();
    std::int64_t exitIdleMs = 60000;
    std::int64_t shareWindowMs = settings.shareWindow.count();
    app.add_option("--socket", socketPath, "Listen on this Unix socket (when not started by systemd socket activation)")
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

    returnFreedMemory();
    openStandardDescriptors();
    ::signal(SIGPIPE, SIG_IGN);  // smartctl gets default dispositions back when it starts
    ::signal(SIGCHLD, SIG_DFL);  // an inherited SIG_IGN would reap children behind the pidfds' back

    asio::io_context io;
    asio::local::stream_protocol::acceptor acceptor(io);
    std::unique_ptr<helper::SocketFile> socketFile;
    auto activated = helper::activatedSocket();
    if (!activated) return fail(kUsage, activated.error());
    if (*activated >= 0) {
        if (!socketPath.empty()) return fail(kUsage, "--socket cannot be used when systemd passes the socket");
        acceptor.assign(asio::local::stream_protocol(), *activated);
        settings.exitWhenIdle = std::chrono::milliseconds(exitIdleMs);
        mainLogger().notice("vantorix-smartctl-helper {} listening on the socket systemd passed", VANTORIX_VERSION);
    } else if (!socketPath.empty()) {
        auto created = helper::SocketFile::create(socketPath);
        if (!created) return fail(kFailure, created.error());
        socketFile = std::move(*created);
        acceptor.assign(asio::local::stream_protocol(), socketFile->release());
        mainLogger().notice("vantorix-smartctl-helper {} listening on {}", VANTORIX_VERSION, socketPath);
    } else {
        return fail(
            kUsage,
            "no socket to listen on: start it through vantorix-smartctl-helper.socket (systemd), or pass --socket PATH");
    }

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
    return 0;
}
