#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/SmartctlExecutionResult.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix {

// Errors that come from the connection rather than from the helper carry one of these domains:
// the connection's own (it could not be made, the peer is not the privileged helper, the stream
// broke or closed with requests outstanding, a reply was malformed) and the general one (a local
// failure). A client drops its connection on errors of either domain.
inline constexpr std::string_view kConnectionErrorDomain = "NSXPCErrorDomain";
inline constexpr std::string_view kGeneralErrorDomain = "NSCocoaErrorDomain";
// Codes of the connection domain: the peer went away with requests outstanding, or the connection
// cannot be used.
inline constexpr std::int64_t kConnectionInterrupted = 4097;
inline constexpr std::int64_t kConnectionInvalid = 4099;

// A connection to the privileged helper. Requests go out in order and are answered in order; each
// is answered either through its reply (the helper's answer, which may be an error of the helper's
// domain) or through its error handler (the connection failed it), never both, and possibly never
// (when the connection is invalidated first). Replies and handlers run on the connection's own
// thread. Every member function is safe from any thread.
class HelperConnection {
public:
    using FetchReply = std::function<void(std::optional<SmartctlExecutionResult>, std::optional<protocol::HelperError>)>;
    using VersionReply = std::function<void(std::string)>;
    using ErrorHandler = std::function<void(const protocol::HelperError&)>;

    virtual ~HelperConnection() = default;

    // Called once when the connection becomes unusable for good (invalidated, or it could not be made).
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;
    // Called when the helper went away while requests were outstanding.
    virtual void setInterruptionHandler(std::function<void()> handler) = 0;
    // Lets the connection start; the link itself is made with the first request.
    virtual void resume() = 0;
    // Ends the connection; outstanding replies are dropped without being called. Idempotent.
    virtual void invalidate() = 0;

    virtual void fetchSMARTData(const std::string& deviceName, FetchReply reply, ErrorHandler errorHandler) = 0;
    virtual void helperVersion(VersionReply reply, ErrorHandler errorHandler) = 0;

protected:
    HelperConnection() = default;
    HelperConnection(const HelperConnection&) = default;
    HelperConnection& operator=(const HelperConnection&) = default;
};

// Makes connections to a named privileged service.
class HelperConnector {
public:
    virtual ~HelperConnector() = default;
    // A new, suspended connection; nothing when none can be made.
    virtual std::shared_ptr<HelperConnection> connect(std::string_view serviceName) = 0;

protected:
    HelperConnector() = default;
    HelperConnector(const HelperConnector&) = default;
    HelperConnector& operator=(const HelperConnector&) = default;
};

}  // namespace vantorix
