#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "concurrency/Cancellation.h"
#include "concurrency/SerialQueue.h"
#include "platform/HelperConnection.h"
#include "smart/PrivilegedHelperManager.h"
#include "util/Result.h"

namespace vantorix {

// Why a request to the helper gave no result.
enum class HelperRequestFailure {
    privilegedOperationsDisabled,  // the runtime policy forbids asking
    helperNotInstalled,            // the helper is not enabled and could not be
    noConnection,                  // no connection could be made
    connectionFailed,  // the connection failed the request (ConnectionFailure), for a reason below or another
    peerNotRoot,       // the process listening there does not run as root: nothing was sent
    brokenStream,      // the helper closed the connection, or reading or writing failed
    malformedReply,    // the reply was not one of the protocol's shapes
    helperError,       // the helper answered with an error
    timedOut,          // no answer within the reply time-out
    cancelled,         // the caller stopped waiting
};

// The program's side of the privileged helper: owns one connection to it, made by the first
// request and kept for the next ones, and turns the helper's asynchronous answer into a blocking
// call with a time limit. A failure the connection knows of at once (it cannot connect, the peer is
// not root, the helper closed the connection) ends the wait at once. A time-out and every failure
// of the connection drop the connection; the next request makes a fresh one. An error of the
// helper's own keeps it.
class SmartctlHelperClient : public std::enable_shared_from_this<SmartctlHelperClient> {
public:
    static constexpr std::chrono::nanoseconds kDefaultReplyTimeout = std::chrono::seconds(5);

    struct Dependencies {
        std::shared_ptr<HelperConnector> connector;
        std::shared_ptr<PrivilegedHelperManager> manager;
        std::chrono::nanoseconds replyTimeout = kDefaultReplyTimeout;
    };

    static std::shared_ptr<SmartctlHelperClient> create(Dependencies dependencies);
    ~SmartctlHelperClient();
    SmartctlHelperClient(const SmartctlHelperClient&) = delete;
    SmartctlHelperClient& operator=(const SmartctlHelperClient&) = delete;

    // smartctl's run for a device name, or why there is none (every failure is logged). Blocks the
    // calling thread for up to the reply time-out, less when `cancellation` is cancelled meanwhile;
    // never call it on the main thread of a program whose main thread must stay responsive.
    Result<SmartctlExecutionResult, HelperRequestFailure> fetchSmartData(std::string_view deviceName,
                                                                         const CancellationToken& cancellation = {});

    // The helper's version, when a connection can be had and the helper answers in time. Enables
    // nothing.
    std::optional<std::string> helperVersion();

    PrivilegedHelperManager& manager() const { return *dependencies_.manager; }

private:
    explicit SmartctlHelperClient(Dependencies dependencies);

    std::shared_ptr<HelperConnection> remoteProxy();
    // Takes `failed` out of `connection_` when it is still the current one, and invalidates it.
    void dropConnection(const std::shared_ptr<HelperConnection>& failed);

    Dependencies dependencies_;
    SerialQueue connectionQueue_;
    std::shared_ptr<HelperConnection> connection_;  // on connectionQueue_ only
};

}  // namespace vantorix
