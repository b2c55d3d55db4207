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
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

namespace vantorix::testing {
namespace {

// The child: serves connections until the parent closes its end of the report pipe, writing
// "connections bytes" lines to it whenever the counts change.
[[noreturn]] void serve(HelperSocketStandIn::Behaviour behaviour, uid_t uid, const std::string& path, int report, int ready) {
    if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(3);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener, 16) != 0) {
        ::_exit(4);
    }
    ::chmod(path.c_str(), 0666);
    (void)!::write(ready, "r", 1);
    ::close(ready);
    std::uint64_t connections = 0, bytes = 0, closed = 0;
    std::vector<int> clients;
    std::string reported;
    for (;;) {
        pollfd polled[2] = {{listener, POLLIN, 0}, {report, POLLERR, 0}};
        if (::poll(polled, 2, 20) < 0 || (polled[1].revents & (POLLERR | POLLHUP)) != 0) break;
        if ((polled[0].revents & POLLIN) != 0) {
            const int client = ::accept(listener, nullptr, nullptr);
            ++connections;
            if (behaviour == HelperSocketStandIn::Behaviour::closeAtOnce) {
                ::close(client);
                ++closed;
            } else {
                clients.push_back(client);
            }
        }
        for (int& client : clients) {
            char buffer[4096];
            for (ssize_t n; client >= 0 && (n = ::recv(client, buffer, sizeof(buffer), MSG_DONTWAIT)) >= 0;) {
                if (n == 0) {  // the client hung up
                    ::close(client);
                    client = -1;
                    ++closed;
                } else {
                    bytes += static_cast<std::uint64_t>(n);
                }
            }
        }
        std::erase(clients, -1);
        const std::string counts =
            std::to_string(connections) + " " + std::to_string(bytes) + " " + std::to_string(closed) + "\n";
        if (counts != reported && ::write(report, counts.data(), counts.size()) < 0) break;
        reported = counts;
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
        serve(behaviour, uid, path_, report[1], ready[1]);
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
