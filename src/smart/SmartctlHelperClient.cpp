#include "smart/SmartctlHelperClient.h"

#include <condition_variable>
#include <mutex>

#include "log/Log.h"

namespace vantorix {
namespace {

// What the caller is told of a connection that failed a request.
HelperRequestFailure requestFailure(ConnectionFailure failure) {
    switch (failure) {
        case ConnectionFailure::peerNotRoot: return HelperRequestFailure::peerNotRoot;
        case ConnectionFailure::brokenStream: return HelperRequestFailure::brokenStream;
        case ConnectionFailure::malformedReply: return HelperRequestFailure::malformedReply;
        case ConnectionFailure::connectFailed:
        case ConnectionFailure::invalidated: break;
    }
    return HelperRequestFailure::connectionFailed;
}

using protocol::HelperError;

const log::Logger& clientLogger() {
    static const log::Logger& instance = log::logger("SmartctlHelperClient");
    return instance;
}

// The answer to one request: written once by the connection's thread, then signalled.
template <class Answer>
class AnswerSlot {
public:
    void fill(Answer answer) {
        {
            std::lock_guard lock(mutex_);
            answer_ = std::move(answer);
        }
        signal_.notify_all();
    }

    // The answer, once it came; nothing when the deadline passed or cancellation was requested
    // first. A cancellation is noticed within a few milliseconds.
    std::optional<Answer> wait(std::chrono::steady_clock::time_point deadline, const CancellationToken& cancellation) {
        std::unique_lock lock(mutex_);
        constexpr auto kCancellationCheck = std::chrono::milliseconds(20);
        while (!answer_) {
            if (cancellation.isCancelled()) return std::nullopt;
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline) return std::nullopt;
            signal_.wait_until(lock, std::min(deadline, now + kCancellationCheck));
        }
        return std::move(answer_);
    }

private:
    std::mutex mutex_;
    std::condition_variable signal_;
    std::optional<Answer> answer_;
};

}  // namespace

std::shared_ptr<SmartctlHelperClient> SmartctlHelperClient::create(Dependencies dependencies) {
    return std::shared_ptr<SmartctlHelperClient>(new SmartctlHelperClient(std::move(dependencies)));
}

SmartctlHelperClient::SmartctlHelperClient(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      connectionQueue_("com.vantorix.SmartctlHelperClient.connection", QualityOfService::utility) {}

SmartctlHelperClient::~SmartctlHelperClient() {
    auto connection = connectionQueue_.sync([this] { return std::exchange(connection_, nullptr); });
    if (connection) connection->invalidate();
}

std::shared_ptr<HelperConnection> SmartctlHelperClient::remoteProxy() {
    return connectionQueue_.sync([this]() -> std::shared_ptr<HelperConnection> {
        if (connection_) return connection_;
        auto connection = dependencies_.connector->connect();
        if (!connection) return nullptr;
        std::weak_ptr<SmartctlHelperClient> weak = weak_from_this();
        std::weak_ptr<HelperConnection> weakConnection = connection;
        connection->setInvalidationHandler([weak, weakConnection] {
            const auto self = weak.lock();
            if (!self) return;
            clientLogger().debug("Helper connection invalidated; will recreate on next request.");
            self->connectionQueue_.async([weak, weakConnection] {
                const auto client = weak.lock();
                const auto invalidated = weakConnection.lock();
                if (client && invalidated && client->connection_ == invalidated) client->connection_.reset();
            });
        });
        connection->setInterruptionHandler([weak, weakConnection] {
            const auto self = weak.lock();
            if (!self) return;
            clientLogger().error("Helper connection interrupted; will retry on next request.");
            if (const auto interrupted = weakConnection.lock()) self->dropConnection(interrupted);
        });
        connection_ = connection;
        return connection;
    });
}

void SmartctlHelperClient::dropConnection(const std::shared_ptr<HelperConnection>& failed) {
    const bool wasCurrent = connectionQueue_.sync([&] {
        if (connection_ != failed) return false;
        connection_.reset();
        return true;
    });
    // A connection that was already replaced has been invalidated by whoever replaced it.
    if (wasCurrent) failed->invalidate();
}

Result<SmartctlExecutionResult, HelperRequestFailure> SmartctlHelperClient::fetchSmartData(
    std::string_view deviceName, const CancellationToken& cancellation) {
    const std::string name(deviceName);
    auto& manager = *dependencies_.manager;
    if (!manager.runtimeEnvironment().allowsPrivilegedOperations) {
        clientLogger().notice(
            "Skipped privileged helper request for device {} because the runtime policy has disabled privileged operations.",
            name);
        return Failure{HelperRequestFailure::privilegedOperationsDisabled};
    }
    if (!manager.ensureHelperInstalledIfNeeded()) {
        clientLogger().error("Refusing to call helper because installation failed for device {}", name);
        return Failure{HelperRequestFailure::helperNotInstalled};
    }
    const auto connection = remoteProxy();
    if (!connection) {
        clientLogger().error(
            "Unable to create a connection to the privileged helper when fetching SMART info for device {}", name);
        return Failure{HelperRequestFailure::noConnection};
    }

    const auto slot = std::make_shared<AnswerSlot<HelperConnection::FetchAnswer>>();
    connection->fetchSmartData(name, [slot](HelperConnection::FetchAnswer answer) { slot->fill(std::move(answer)); });
    auto answer = slot->wait(std::chrono::steady_clock::now() + dependencies_.replyTimeout, cancellation);
    if (!answer) {
        if (cancellation.isCancelled()) {
            clientLogger().debug("Stopped waiting for the helper's answer for device {}: the request was cancelled",
                                 name);
            return Failure{HelperRequestFailure::cancelled};
        }
        clientLogger().error("Timed out waiting for helper response when fetching SMART info for device {}", name);
        dropConnection(connection);
        return Failure{HelperRequestFailure::timedOut};
    }
    if (const auto* failure = std::get_if<ConnectionError>(&*answer)) {
        clientLogger().error("Helper connection failed ({}) for device {}: {}", failureName(failure->failure), name,
                             failure->description);
        dropConnection(connection);
        return Failure{requestFailure(failure->failure)};
    }
    if (const auto* error = std::get_if<HelperError>(&*answer)) {
        if (error->domain == protocol::kHelperErrorDomain) {
            clientLogger().error("Privileged helper domain error (code: {}) for device {}: {}", error->code, name,
                                 error->description);
        } else {
            clientLogger().error("Helper reported error for device {}: {}", name, error->description);
        }
        return Failure{HelperRequestFailure::helperError};
    }
    auto& result = std::get<SmartctlExecutionResult>(*answer);
    clientLogger().debug("Received helper response containing {} bytes of JSON for device {}; exit status: {}",
                         result.jsonData.size(), name, result.terminationStatus);
    return std::move(result);
}

std::optional<std::string> SmartctlHelperClient::helperVersion() {
    if (!dependencies_.manager->runtimeEnvironment().allowsPrivilegedOperations) return std::nullopt;
    const auto connection = remoteProxy();
    if (!connection) return std::nullopt;
    const auto slot = std::make_shared<AnswerSlot<HelperConnection::VersionAnswer>>();
    connection->helperVersion([slot](HelperConnection::VersionAnswer answer) { slot->fill(std::move(answer)); });
    const auto answer = slot->wait(std::chrono::steady_clock::now() + dependencies_.replyTimeout, {});
    if (!answer) {
        clientLogger().error("Timed out waiting for the helper's version");
        dropConnection(connection);
        return std::nullopt;
    }
    if (const auto* failure = std::get_if<ConnectionError>(&*answer)) {
        clientLogger().error("Helper connection failed ({}) when asking for its version: {}",
                             failureName(failure->failure), failure->description);
        dropConnection(connection);
        return std::nullopt;
    }
    if (const auto* error = std::get_if<HelperError>(&*answer)) {
        clientLogger().error("Helper reported error when asked for its version: {}", error->description);
        return std::nullopt;
    }
    return std::get<std::string>(*answer);
}

}  // namespace vantorix
