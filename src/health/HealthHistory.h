#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "health/DriveHealth.h"
#include "util/Result.h"

struct sqlite3;

namespace vantorix::health {

// How far a figure that should never grow has grown above its baseline: the first value recorded
// for the drive, or the value a user acknowledged.
struct Growth {
    Figure figure = Figure::reallocatedSectors;
    double baseline = 0;
    std::int64_t baselineAt = 0;  // Unix seconds
    double current = 0;
    std::optional<std::int64_t> grewAt;  // the first recorded reading above the baseline

    double amount() const { return current > baseline ? current - baseline : 0; }
};

// One finished performance test of a drive, as the history keeps it.
struct BenchmarkRun {
    std::int64_t finishedMs = 0;  // Unix milliseconds
    std::string kind;             // the kind of test, with its cache mode: runs of one kind compare
    std::uint64_t payloadBytes = 0;
    std::string figures;    // a JSON object: each figure's name and value
    std::string pageCache;  // a JSON array: each phase against the device's counters
    std::string version;    // of the program that ran it
};

struct StoredDrive {
    DriveIdentity identity;
    std::string key;
    std::int64_t firstAt = 0;
    std::int64_t lastAt = 0;
};

// A drive-health history in one SQLite file (write-ahead log, schema migrated by its version):
// readings of each drive keyed by its identity, stored when they change and at least hourly, a
// year at full resolution and one reading a day before that, the baselines of the growth
// figures, and the drive's performance tests. Several processes may record into one file at once; every write is one
// transaction, so a process killed mid-write loses only what it had not committed.
//
// One object is one connection: use it from one thread at a time.
class HealthHistory {
public:
    using Error = std::string;  // in the user's language

    static constexpr std::chrono::seconds kRecordAtLeastEvery = std::chrono::hours(1);
    // A small change of the temperature is stored once this long has passed since the last reading.
    static constexpr std::chrono::seconds kSmallChangesEvery = std::chrono::minutes(10);
    static constexpr std::chrono::seconds kFullResolutionFor = std::chrono::hours(24 * 365);

    // Opens (creating it and its folders when missing) and migrates the file.
    static Result<std::unique_ptr<HealthHistory>, Error> open(const std::string& path);
    ~HealthHistory();
    HealthHistory(const HealthHistory&) = delete;
    HealthHistory& operator=(const HealthHistory&) = delete;

    const std::string& path() const { return path_; }

    // Stores the reading when it differs notably from the drive's last stored reading (the
    // verdict, a count, the wear, the temperature by kTemperatureStep), when the temperature moved
    // less and the last is kSmallChangesEvery old, or when the last is kRecordAtLeastEvery old.
    // What grows with use alone (hours, bytes) waits for the hour. A growth figure seen for the
    // first time gets its baseline.
    // True when a reading was stored. A drive without an identity is not recorded (false).
    Result<bool, Error> record(const DriveIdentity& drive, const HealthSnapshot& reading);

    // The drive's stored readings at or after `since`, oldest first.
    Result<std::vector<HealthSnapshot>, Error> history(const std::string& key, std::int64_t since = 0) const;
    // The last stored reading.
    Result<std::optional<HealthSnapshot>, Error> latest(const std::string& key) const;
    // Every growth figure with a baseline, with the latest stored value.
    Result<std::vector<Growth>, Error> growth(const std::string& key) const;
    // Makes the latest stored values the baselines; returns the growth as it is then (all zero).
    Result<std::vector<Growth>, Error> acknowledge(const std::string& key, std::int64_t now);
    Result<std::vector<StoredDrive>, Error> drives() const;
    // The stored drive last seen under this kernel name, if any.
    Result<std::optional<StoredDrive>, Error> driveSeenAs(const std::string& deviceName) const;

    // Stores a finished performance test of the drive (false for a drive without an identity).
    Result<bool, Error> recordRun(const DriveIdentity& drive, const BenchmarkRun& run);
    // The drive's performance tests, oldest first.
    Result<std::vector<BenchmarkRun>, Error> runs(const std::string& key) const;

    // Keeps one reading a day (the day's last) of what is older than kFullResolutionFor before
    // `now`. record() does this by itself at most once a day per object.
    Result<std::size_t, Error> thin(std::int64_t now);

    // Where a user's history lives: $XDG_DATA_HOME/vantorix/health.sqlite, or
    // ~/.local/share/vantorix/health.sqlite. Empty when neither variable gives a folder.
    static std::string userPath();
    // Where the exporter's service keeps it: $STATE_DIRECTORY (the first of its folders) or
    // /var/lib/vantorix, then health.sqlite.
    static std::string servicePath();

private:
    HealthHistory(sqlite3* database, std::string path);

    sqlite3* database_;
    std::string path_;
    std::int64_t lastThinnedAt_ = 0;
};

}  // namespace vantorix::health
