#include "health/HealthRecorder.h"

#include <chrono>
#include <future>
#include <utility>

#include "concurrency/SerialQueue.h"

namespace vantorix::health {

// What only the queue touches: the open file and the identity last recorded under each name.
struct HealthRecorder::Shared {
    std::string path;
    std::unique_ptr<HealthHistory> history;
    bool failed = false;
    std::map<std::string, DriveIdentity> lastIdentity;
    std::function<std::int64_t()> unixNow;

    // The open file; nothing (and `error` set, once) when it cannot be opened.
    HealthHistory* open(std::optional<std::string>& error) {
        if (history || failed) return history.get();
        auto opened = HealthHistory::open(path);
        if (opened) history = std::move(opened).value();
        else {
            failed = true;
            error = opened.error();
        }
        return history.get();
    }
};

HealthRecorder::HealthRecorder(std::string path, std::shared_ptr<MainExecutor> mainExecutor,
                               std::function<std::int64_t()> unixNow)
    : shared_(std::make_shared<Shared>()),
      mainExecutor_(std::move(mainExecutor)),
      queue_(std::make_unique<SerialQueue>("com.vantorix.health.recorder", QualityOfService::utility)) {
    shared_->path = std::move(path);
    shared_->unixNow = unixNow ? std::move(unixNow) : [] {
        return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
}

HealthRecorder::~HealthRecorder() { queue_.reset(); }

void HealthRecorder::record(std::string deviceName, std::string smartctlJson) {
    queue_->async([shared = shared_, main = mainExecutor_, alive = std::weak_ptr<bool>(alive_), self = this,
                   deviceName = std::move(deviceName), json = std::move(smartctlJson)] {
        const auto reading = driveReadingFromJson(json, shared->unixNow(), deviceName);
        if (!reading || !reading->identity.known()) return;
        std::optional<std::string> error;
        HealthHistory* history = shared->open(error);
        bool stored = false;
        if (history != nullptr) {
            shared->lastIdentity[deviceName] = reading->identity;
            auto recorded = history->record(reading->identity, reading->snapshot);
            if (recorded) stored = *recorded;
            else error = recorded.error();
        }
        if (!error && !stored) return;
        main->post([alive, self, error = std::move(error), stored, deviceName] {
            if (alive.expired()) return;
            if (error) self->lastError_ = error;
            if (stored && self->observer_) self->observer_(deviceName);
        });
    });
}

void HealthRecorder::loadHistory(std::string deviceName, std::int64_t since,
                                 std::function<void(std::optional<DriveHistory>)> done) {
    queue_->async([shared = shared_, main = mainExecutor_, alive = std::weak_ptr<bool>(alive_), self = this,
                   deviceName = std::move(deviceName), since, done = std::move(done)]() mutable {
        std::optional<DriveHistory> result;
        std::optional<std::string> error;
        if (HealthHistory* history = shared->open(error)) {
            std::optional<DriveIdentity> identity;
            if (const auto known = shared->lastIdentity.find(deviceName); known != shared->lastIdentity.end())
                identity = known->second;
            else if (auto seen = history->driveSeenAs(deviceName); seen && *seen) identity = (*seen)->identity;
            if (identity) {
                auto readings = history->history(identity->key(), since);
                auto growth = history->growth(identity->key());
                if (readings && growth) result = DriveHistory{*identity, std::move(*readings), std::move(*growth)};
                else error = !readings ? readings.error() : growth.error();
            }
        }
        main->post(
            [alive, self, done = std::move(done), result = std::move(result), error = std::move(error)]() mutable {
                if (alive.expired()) return;
                if (error) self->lastError_ = error;
                done(std::move(result));
            });
    });
}

void HealthRecorder::setRecordedObserver(std::function<void(const std::string&)> observer) {
    observer_ = std::move(observer);
}

void HealthRecorder::drain() {
    std::promise<void> finished;
    auto future = finished.get_future();
    queue_->async([&finished] { finished.set_value(); });
    future.wait();
}

}  // namespace vantorix::health
