#include "support/HelperSocketStandIn.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "support/Process.h"

namespace vantorix::testing {

HelperSocketStandIn::HelperSocketStandIn(Behaviour behaviour, uid_t uid) {
    ::chmod(folder_.string().c_str(), 0777);  // a listener of another user makes its socket there
    path_ = folder_.string() + "/helper.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path_.c_str());
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A client's peer check sees who called listen(): a child running as `uid` binds and listens on
    // the descriptor it shares, and this process accepts there.
    const pid_t child = ::fork();
    if (child == 0) {
        const bool listening = (uid == 0 || (::setgid(uid) == 0 && ::setuid(uid) == 0)) &&
                               ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                               ::chmod(address.sun_path, 0666) == 0 && ::listen(listener_, 16) == 0;
        ::_exit(listening ? 0 : 1);
    }
    if (child > 0 && waitForExit(child, std::chrono::seconds(10)) == 0) {
        server_ = std::thread([this, behaviour] { serve(behaviour); });
    }
}

HelperSocketStandIn::~HelperSocketStandIn() {
    stop_ = true;
    if (server_.joinable()) server_.join();
    ::close(listener_);
}

void HelperSocketStandIn::serve(Behaviour behaviour) {
    std::vector<int> clients;
    while (!stop_) {
        pollfd ready{listener_, POLLIN, 0};
        if (::poll(&ready, 1, 5) > 0) {
            const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) ++connections_;
            if (client >= 0 && behaviour == Behaviour::closeAtOnce) {
                ::close(client);
                ++closed_;
            } else if (client >= 0) {
                clients.push_back(client);
            }
        }
        for (auto it = clients.begin(); it != clients.end();) {
            char buffer[4096];
            const ssize_t n = ::recv(*it, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (n > 0) bytes_ += static_cast<std::uint64_t>(n);
            if (n != 0) {
                ++it;
                continue;
            }
            ::close(*it);  // the client hung up
            it = clients.erase(it);
            ++closed_;
        }
    }
    for (const int client : clients) ::close(client);
}

HelperSocketStandIn::Counts HelperSocketStandIn::waitFor(const std::function<bool(const Counts&)>& done,
                                                         std::chrono::milliseconds limit) {
    eventually([&] { return done(counts()); }, limit);
    return counts();
}

}  // namespace vantorix::testing
