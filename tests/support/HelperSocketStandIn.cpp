#include "support/HelperSocketStandIn.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>

namespace vantorix::testing {
namespace {

// The child: serves connections until the parent closes its end of the report pipe, writing
// "connections bytes closed" lines to it whenever the counts change. The parent may have other
// threads, so the child allocates nothing: fixed arrays and system calls only.
[[noreturn]] void serve(HelperSocketStandIn::Behaviour behaviour, uid_t uid, const char* path, int report, int ready) {
    if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(3);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener, 16) != 0) {
        ::_exit(4);
    }
    ::chmod(path, 0666);
    (void)!::write(ready, "r", 1);
    ::close(ready);
    unsigned long long connections = 0, bytes = 0, closed = 0;
    constexpr int kMaximumClients = 64;
    int clients[kMaximumClients];
    int clientCount = 0;
    char reported[96] = "";
    for (;;) {
        pollfd polled[2] = {{listener, POLLIN, 0}, {report, POLLERR, 0}};
        if (::poll(polled, 2, 20) < 0 || (polled[1].revents & (POLLERR | POLLHUP)) != 0) break;
        const int client = (polled[0].revents & POLLIN) != 0 ? ::accept(listener, nullptr, nullptr) : -1;
        if (client >= 0) {
            ++connections;
            if (behaviour == HelperSocketStandIn::Behaviour::closeAtOnce || clientCount == kMaximumClients) {
                ::close(client);
                ++closed;
            } else {
                clients[clientCount++] = client;
            }
        }
        for (int i = 0; i < clientCount;) {
            char buffer[4096];
            const ssize_t n = ::recv(clients[i], buffer, sizeof(buffer), MSG_DONTWAIT);
            if (n > 0) {
                bytes += static_cast<unsigned long long>(n);
            } else if (n == 0) {  // the client hung up
                ::close(clients[i]);
                clients[i] = clients[--clientCount];
                ++closed;
            } else {
                ++i;
            }
        }
        char counts[96];
        const int length = std::snprintf(counts, sizeof(counts), "%llu %llu %llu\n", connections, bytes, closed);
        if (std::strcmp(counts, reported) != 0) {
            if (::write(report, counts, static_cast<std::size_t>(length)) < 0) break;
            std::memcpy(reported, counts, sizeof(counts));
        }
    }
    ::_exit(0);
}

}  // namespace

HelperSocketStandIn::HelperSocketStandIn(Behaviour behaviour, uid_t uid) {
    char pattern[] = "/tmp/vantorix-listener-XXXXXX";
    directory_ = ::mkdtemp(pattern);
    ::chmod(directory_.c_str(), 0777);  // a listener of another user makes its socket there
    path_ = directory_ + "/helper.sock";
    int report[2];
    int ready[2];
    if (::pipe(report) != 0 || ::pipe(ready) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(report[0]);
        ::close(ready[0]);
        serve(behaviour, uid, path_.c_str(), report[1], ready[1]);
    }
    ::close(report[1]);
    ::close(ready[1]);
    char byte = 0;
    (void)!::read(ready[0], &byte, 1);
    ::close(ready[0]);
    report_ = report[0];
    ::fcntl(report_, F_SETFL, O_NONBLOCK);
}

HelperSocketStandIn::~HelperSocketStandIn() {
    ::close(report_);
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

HelperSocketStandIn::Counts HelperSocketStandIn::counts() {
    char buffer[4096];
    for (ssize_t n; (n = ::read(report_, buffer, sizeof(buffer))) > 0;) reports_.append(buffer, static_cast<std::size_t>(n));
    std::istringstream lines(reports_);
    Counts result;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream(line) >> result.connections >> result.bytes >> result.closed;
    }
    return result;
}

HelperSocketStandIn::Counts HelperSocketStandIn::waitFor(const std::function<bool(const Counts&)>& done,
                                                         std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    Counts seen = counts();
    while (!done(seen) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        seen = counts();
    }
    return seen;
}

}  // namespace vantorix::testing
