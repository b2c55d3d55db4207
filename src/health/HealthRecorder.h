#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "concurrency/MainExecutor.h"
#include "health/HealthHistory.h"

namespace vantorix {
class SerialQueue;
}

namespace vantorix::health {

// A drive's history as a view shows it.
struct DriveHistory {
    DriveIdentity identity;
    std::vector<HealthSnapshot> readings;  // oldest first
    std::vector<Growth> growth;
};

// Records the SMART answers a program fetches into a history file, and reads a drive's history
// back, both on a queue of its own: the main thread only hands over and is called back. The file
// is opened with the first use; when it cannot be, recording stops and `lastError` says why.
class HealthRecorder {
public:
    // `unixNow` tells the time a reading is stamped with (the system clock when empty); it is
    // called on the recorder's queue.
    HealthRecorder(std::string path, std::shared_ptr<MainExecutor> mainExecutor,
                   std::function<std::int64_t()> unixNow = {});
    ~HealthRecorder();  // finishes what was handed over
    HealthRecorder(const HealthRecorder&) = delete;
    HealthRecorder& operator=(const HealthRecorder&) = delete;

    // Records the reading in a smartctl --json answer for the drive asked as `deviceName`, read
    // now. Any thread; returns at once.
    void record(std::string deviceName, std::string smartctlJson);

    // The history of the drive last recorded (or, failing that, last seen in the file) as
    // `deviceName`, from `since` (Unix seconds) on; `done` is called on the main thread, with
    // nothing when the drive has no history or the file cannot be read (then `lastError` says why
    // by the time `done` runs).
    void loadHistory(std::string deviceName, std::int64_t since, std::function<void(std::optional<DriveHistory>)> done);

    // Called on the main thread after each reading that was stored, with the device name.
    void setRecordedObserver(std::function<void(const std::string& deviceName)> observer);

    // Waits until everything handed over so far is done. For tests and benchmarks.
    void drain();

    // Why the file could not be used, if it could not; main thread.
    const std::optional<std::string>& lastError() const { return lastError_; }

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
    std::shared_ptr<MainExecutor> mainExecutor_;
    std::optional<std::string> lastError_;
    std::function<void(const std::string&)> observer_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::unique_ptr<SerialQueue> queue_;  // last: destroyed first, finishing its work
};

}  // namespace vantorix::health
