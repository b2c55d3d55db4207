#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "protocol/SmartctlExecutionResult.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix {

// Why the connection, rather than the helper, failed a request.
enum class ConnectionFailure {
    connectFailed,   // the socket could not be reached
    peerNotRoot,     // the process listening there does not run as root: nothing was sent to it
    brokenStream,    // the helper closed the connection, or writing or reading failed, with the request outstanding
    malformedReply,  // a reply that is not one of the protocol's shapes, over the size limit, or not asked for
    invalidated,     // the connection was ended before the reply came
};

// "connect failed", "peer not root", "broken stream", "malformed reply", "invalidated" (logs).
std::string_view failureName(ConnectionFailure failure);

struct ConnectionError {
    ConnectionFailure failure = ConnectionFailure::connectFailed;
    std::string description;  // one English line, for logs

    friend bool operator==(const ConnectionError&, const ConnectionError&) = default;
};

// A connection to the privileged helper. Requests go out in order and are answered in order. Each
// request is answered exactly once: by the helper (its result, or an error of the helper's domain)
// or by the connection, as soon as it knows the request cannot be answered (ConnectionError).
// Answers run on the connection's own thread. Every member function is safe from any thread.
class HelperConnection {
public:
    using FetchAnswer = std::variant<SmartctlExecutionResult, protocol::HelperError, ConnectionError>;
    using VersionAnswer = std::variant<std::string, protocol::HelperError, ConnectionError>;

    virtual ~HelperConnection() = default;

    // Called once when the connection becomes unusable for good (invalidated, or it could not be made).
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;
    // Called when the helper went away while requests were outstanding, before they are answered.
    virtual void setInterruptionHandler(std::function<void()> handler) = 0;
    // Ends the connection; outstanding requests are answered with ConnectionFailure::invalidated.
    // Idempotent.
    virtual void invalidate() = 0;

    virtual void fetchSmartData(const std::string& deviceName, std::function<void(FetchAnswer)> answer) = 0;
    virtual void helperVersion(std::function<void(VersionAnswer)> answer) = 0;

protected:
    HelperConnection() = default;
    HelperConnection(const HelperConnection&) = default;
    HelperConnection& operator=(const HelperConnection&) = default;
};

// Makes connections to the privileged helper.
class HelperConnector {
public:
    virtual ~HelperConnector() = default;
    // A new connection (the link itself is made by its first request); nothing when none can be made.
    virtual std::shared_ptr<HelperConnection> connect() = 0;

protected:
    HelperConnector() = default;
    HelperConnector(const HelperConnector&) = default;
    HelperConnector& operator=(const HelperConnector&) = default;
};

}  // namespace vantorix
