#include "smart/SmartctlHelperClient.h"

#include <condition_variable>
#include <mutex>

#include "log/Log.h"

namespace vantorix {
namespace {

using protocol::HelperError;

const log::Logger& logger() {
    static const log::Logger& instance = log::logger("SmartctlHelperClient");
    return instance;
}

// What the reply of one request left: written by the connection's thread, then signalled.
template <class Value>
class ReplySlot {
public:
    void fill(std::optional<Value> value, std::optional<HelperError> error) {
        {
            std::lock_guard lock(mutex_);
            value_ = std::move(value);
            error_ = std::move(error);
            done_ = true;
        }
        signal_.notify_all();
    }

    // Waits until the reply came (true), the deadline passed or cancellation was requested (false).
    // A cancellation is noticed within a few milliseconds.
    bool wait(std::chrono::steady_clock::time_point deadline, const CancellationToken& cancellation) {
        std::unique_lock lock(mutex_);
        constexpr auto kCancellationCheck = std::chrono::milliseconds(20);
        while (!done_) {
            if (cancellation.isCancelled()) return false;
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline) return false;
            signal_.wait_until(lock, std::min(deadline, now + kCancellationCheck));
        }
        return true;
    }

    std::optional<Value> value() {
        std::lock_guard lock(mutex_);
        return value_;
    }
    std::optional<HelperError> error() {
        std::lock_guard lock(mutex_);
        return error_;
    }

private:
    std::mutex mutex_;
    std::condition_variable signal_;
    bool done_ = false;
    std::optional<Value> value_;
    std::optional<HelperError> error_;
};

bool dropsConnection(const HelperError& error) {
    return error.domain == kGeneralErrorDomain || error.domain == kConnectionErrorDomain;
}

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
        auto connection = dependencies_.connector->connect(protocol::kHelperServiceName);
        if (!connection) return nullptr;
        std::weak_ptr<SmartctlHelperClient> weak = weak_from_this();
        std::weak_ptr<HelperConnection> weakConnection = connection;
        connection->setInvalidationHandler([weak, weakConnection] {
            const auto self = weak.lock();
            if (!self) return;
            logger().debug("Helper connection invalidated; will recreate on next request.");
            self->connectionQueue_.async([weak, weakConnection] {
                const auto client = weak.lock();
                const auto invalidated = weakConnection.lock();
                if (client && invalidated && client->connection_ == invalidated) client->connection_.reset();
            });
        });
        connection->setInterruptionHandler([weak, weakConnection] {
            const auto self = weak.lock();
            if (!self) return;
            logger().error("Helper connection interrupted; will retry on next request.");
            if (const auto interrupted = weakConnection.lock()) self->dropConnection(interrupted);
        });
        connection->resume();
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

std::optional<SmartctlExecutionResult> SmartctlHelperClient::fetchSMARTData(std::string_view deviceName,
                                                                            const CancellationToken& cancellation) {
    const std::string name(deviceName);
    auto& manager = *dependencies_.manager;
    if (!manager.runtimeEnvironment().allowsPrivilegedOperations) {
        logger().notice(
            "Skipped privileged helper request for BSD name {} because the runtime policy has disabled privileged operations.",
            name);
        return std::nullopt;
    }
    if (!manager.ensureHelperInstalledIfNeeded()) {
        logger().error("Refusing to call helper because installation failed for BSD name {}", name);
        return std::nullopt;
    }
    const auto connection = remoteProxy();
    if (!connection) {
        logger().error("Unable to create remote proxy for privileged helper when fetching SMART info for {}", name);
        return std::nullopt;
    }

    const auto slot = std::make_shared<ReplySlot<SmartctlExecutionResult>>();
    std::weak_ptr<SmartctlHelperClient> weak = weak_from_this();
    std::weak_ptr<HelperConnection> weakConnection = connection;
    connection->fetchSMARTData(
        name,
        [slot](std::optional<SmartctlExecutionResult> result, std::optional<HelperError> error) {
            slot->fill(std::move(result), std::move(error));
        },
        // Connection failures do not answer the waiting request: it ends at its time-out.
        [weak, weakConnection](const HelperError& error) {
            logger().error("Remote proxy error: {}", error.description);
            const auto self = weak.lock();
            const auto failed = weakConnection.lock();
            if (self && failed) self->dropConnection(failed);
        });

    const auto deadline = std::chrono::steady_clock::now() + dependencies_.replyTimeout;
    if (!slot->wait(deadline, cancellation)) {
        if (cancellation.isCancelled()) {
            logger().debug("Stopped waiting for the helper's answer for BSD name {}: the request was cancelled", name);
            return std::nullopt;
        }
        logger().error("Timed out waiting for helper response when fetching SMART info for BSD name {}", name);
        dropConnection(connection);
        return std::nullopt;
    }
    if (const auto error = slot->error()) {
        if (error->domain == protocol::kHelperErrorDomain) {
            logger().error("Privileged helper domain error (code: {}) for BSD name {}: {}", error->code, name,
                           error->description);
        } else {
            logger().error("Helper reported error for BSD name {}: {}", name, error->description);
        }
        if (dropsConnection(*error)) dropConnection(connection);
        return std::nullopt;
    }
    auto result = slot->value();
    if (!result) {
        logger().error("Helper returned neither result nor error for BSD name {}", name);
        return std::nullopt;
    }
    logger().debug("Received helper response containing {} bytes of JSON for BSD name {}; exit status: {}",
                   result->jsonData.size(), name, result->terminationStatus);
    return result;
}

std::optional<std::string> SmartctlHelperClient::helperVersion() {
    if (!dependencies_.manager->runtimeEnvironment().allowsPrivilegedOperations) return std::nullopt;
    const auto connection = remoteProxy();
    if (!connection) return std::nullopt;
    const auto slot = std::make_shared<ReplySlot<std::string>>();
    std::weak_ptr<SmartctlHelperClient> weak = weak_from_this();
    std::weak_ptr<HelperConnection> weakConnection = connection;
    connection->helperVersion([slot](std::string version) { slot->fill(std::move(version), std::nullopt); },
                              [weak, weakConnection](const HelperError& error) {
                                  logger().error("Remote proxy error: {}", error.description);
                                  const auto self = weak.lock();
                                  const auto failed = weakConnection.lock();
                                  if (self && failed) self->dropConnection(failed);
                              });
    if (!slot->wait(std::chrono::steady_clock::now() + dependencies_.replyTimeout, {})) {
        dropConnection(connection);
        return std::nullopt;
    }
    return slot->value();
}

}  // namespace vantorix
