#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/HelperConnection.h"

namespace vantorix {

// A connection to the privileged helper over its Unix stream socket. The socket is connected by
// the first request; before anything is sent the peer's credentials (SO_PEERCRED) must show the
// expected user (root), otherwise nothing is sent, the request fails (peer not root) and the
// connection becomes invalid. Requests are framed JSON, written in order; replies are matched to
// requests in order. When the helper closes the socket or the stream breaks while requests are
// outstanding, the interruption handler runs and the outstanding requests fail at once (broken
// stream); an idle close is quiet. Either way the next request connects afresh.
class UnixSocketHelperConnection final : public HelperConnection {
public:
    static std::shared_ptr<UnixSocketHelperConnection> create(std::string socketPath, uid_t requiredPeerUid = 0);
    ~UnixSocketHelperConnection() override;
    UnixSocketHelperConnection(const UnixSocketHelperConnection&) = delete;
    UnixSocketHelperConnection& operator=(const UnixSocketHelperConnection&) = delete;

    void setInvalidationHandler(std::function<void()> handler) override;
    void setInterruptionHandler(std::function<void()> handler) override;
    void invalidate() override;
    void fetchSmartData(const std::string& deviceName, std::function<void(FetchAnswer)> answer) override;
    void helperVersion(std::function<void(VersionAnswer)> answer) override;

private:
    struct State;
    UnixSocketHelperConnection(std::string socketPath, uid_t requiredPeerUid);

    std::shared_ptr<State> state_;
};

// Connects to the socket that `socketPath()` names at the moment a connection is made.
class UnixSocketHelperConnector final : public HelperConnector {
public:
    explicit UnixSocketHelperConnector(std::function<std::string()> socketPath, uid_t requiredPeerUid = 0)
        : socketPath_(std::move(socketPath)), requiredPeerUid_(requiredPeerUid) {}

    std::shared_ptr<HelperConnection> connect() override;

private:
    std::function<std::string()> socketPath_;
    uid_t requiredPeerUid_;
};

// Whether a process running as `uid` listens at `socketPath`: connects, reads the peer's
// credentials, and hangs up without sending anything.
bool helperListensAt(const std::string& socketPath, uid_t uid = 0);

}  // namespace vantorix
