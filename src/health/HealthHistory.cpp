#include "health/HealthHistory.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "text/Language.h"

namespace vantorix::health {
namespace {

using Error = HealthHistory::Error;

// Each entry takes the schema from the version before it (its index) to the next; the file's
// user_version says how many have been applied.
constexpr std::string_view kMigrations[] = {
    R"sql(
CREATE TABLE drives (
    id INTEGER PRIMARY KEY,
    key TEXT NOT NULL UNIQUE,
    wwn TEXT NOT NULL,
    model TEXT NOT NULL,
    serial TEXT NOT NULL,
    device TEXT NOT NULL,
    first_at INTEGER NOT NULL,
    last_at INTEGER NOT NULL
);
CREATE INDEX drives_by_device ON drives (device, last_at);
CREATE TABLE readings (
    drive INTEGER NOT NULL REFERENCES drives (id),
    at INTEGER NOT NULL,
    passed INTEGER,
    temperature REAL,
    power_on_hours REAL,
    percentage_used REAL,
    reallocated_sectors REAL,
    pending_sectors REAL,
    uncorrectable_sectors REAL,
    crc_errors REAL,
    media_errors REAL,
    unsafe_shutdowns REAL,
    bytes_written REAL,
    bytes_read REAL,
    PRIMARY KEY (drive, at)
) WITHOUT ROWID;
CREATE TABLE baselines (
    drive INTEGER NOT NULL REFERENCES drives (id),
    figure TEXT NOT NULL,
    value REAL NOT NULL,
    set_at INTEGER NOT NULL,
    acknowledged INTEGER NOT NULL DEFAULT 0,
    PRIMARY KEY (drive, figure)
) WITHOUT ROWID;
)sql",
    R"sql(
CREATE TABLE benchmark_runs (
    drive INTEGER NOT NULL REFERENCES drives (id),
    finished_ms INTEGER NOT NULL,
    kind TEXT NOT NULL,
    payload_bytes INTEGER NOT NULL,
    figures TEXT NOT NULL,
    page_cache TEXT NOT NULL,
    version TEXT NOT NULL,
    PRIMARY KEY (drive, kind, finished_ms)
) WITHOUT ROWID;
)sql",
};

constexpr int kBusyTimeoutMs = 10'000;
constexpr std::int64_t kDay = 86'400;

std::string failure(const std::string& path, sqlite3* database) {
    const char* reason = database != nullptr ? sqlite3_errmsg(database) : "out of memory";
    return text::isEnglish() ? fmt::format("The health history {} cannot be used: {}.", path, reason)
                             : fmt::format("无法使用健康历史 {}：{}。", path, reason);
}

// One prepared statement, finalised when it goes.
class Statement {
public:
    Statement(sqlite3* database, std::string_view sql) {
        if (sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr) != SQLITE_OK)
            statement_ = nullptr;
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return statement_ != nullptr; }
    Statement& bind(int index, std::int64_t value) {
        sqlite3_bind_int64(statement_, index, value);
        return *this;
    }
    Statement& bind(int index, double value) {
        sqlite3_bind_double(statement_, index, value);
        return *this;
    }
    Statement& bind(int index, const std::string& value) {
        sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int index, std::optional<double> value) {
        if (value) sqlite3_bind_double(statement_, index, *value);
        else sqlite3_bind_null(statement_, index);
        return *this;
    }
    // SQLITE_ROW, SQLITE_DONE or an error.
    int step() { return ok() ? sqlite3_step(statement_) : SQLITE_ERROR; }
    bool run() { return step() == SQLITE_DONE; }

    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    std::string text(int column) const {
        const auto* bytes = sqlite3_column_text(statement_, column);
        return bytes != nullptr ? std::string(reinterpret_cast<const char*>(bytes)) : std::string();
    }
    std::optional<double> number(int column) const {
        if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
        return sqlite3_column_double(statement_, column);
    }

private:
    sqlite3_stmt* statement_ = nullptr;
};

bool execute(sqlite3* database, std::string_view sql) {
    return sqlite3_exec(database, std::string(sql).c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// A write transaction, taken at once so that two writers queue on the busy timeout instead of
// failing on an upgrade; rolled back unless committed.
class WriteTransaction {
public:
    explicit WriteTransaction(sqlite3* database) : database_(database), begun_(execute(database, "BEGIN IMMEDIATE")) {}
    ~WriteTransaction() {
        if (begun_ && !committed_) execute(database_, "ROLLBACK");
    }
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;
    bool begun() const { return begun_; }
    bool commit() { return committed_ = begun_ && execute(database_, "COMMIT"); }

private:
    sqlite3* database_;
    bool begun_;
    bool committed_ = false;
};

std::string readingColumns() {
    std::string columns = "at, passed";
    for (std::size_t i = 0; i < kFigureCount; ++i) columns += fmt::format(", {}", figureName(static_cast<Figure>(i)));
    return columns;
}

HealthSnapshot readingAt(const Statement& row) {
    HealthSnapshot reading;
    reading.at = row.integer(0);
    if (const auto passed = row.number(1)) reading.passed = *passed != 0;
    for (std::size_t i = 0; i < kFigureCount; ++i) reading.figures[i] = row.number(static_cast<int>(i) + 2);
    return reading;
}

std::optional<std::int64_t> driveId(sqlite3* database, const std::string& key) {
    Statement query(database, "SELECT id FROM drives WHERE key = ?");
    if (query.bind(1, key).step() != SQLITE_ROW) return std::nullopt;
    return query.integer(0);
}

// Adds the drive, or updates what is known of it and when it was last seen; its row's id.
std::optional<std::int64_t> upsertDrive(sqlite3* database, const DriveIdentity& drive, std::int64_t at) {
    const std::string key = drive.key();
    Statement upsert(database,
                     "INSERT INTO drives (key, wwn, model, serial, device, first_at, last_at) "
                     "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?6) ON CONFLICT (key) DO UPDATE SET "
                     "wwn = excluded.wwn, model = excluded.model, serial = excluded.serial, "
                     "device = excluded.device, last_at = max(last_at, excluded.last_at)");
    upsert.bind(1, key).bind(2, drive.wwn).bind(3, drive.model).bind(4, drive.serial).bind(5, drive.deviceHint);
    if (!upsert.bind(6, at).run()) return std::nullopt;
    return driveId(database, key);
}

// A row of `SELECT key, wwn, model, serial, device, first_at, last_at FROM drives`. A loop device's
// file is known from its key alone.
StoredDrive storedDrive(const Statement& row) {
    StoredDrive drive{
        {row.text(1), row.text(2), row.text(3), row.text(4), {}}, row.text(0), row.integer(5), row.integer(6)};
    if (drive.key.starts_with("file:")) drive.identity.backingFile = drive.key.substr(5);
    return drive;
}

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

HealthHistory::HealthHistory(sqlite3* database, std::string path) : database_(database), path_(std::move(path)) {}

HealthHistory::~HealthHistory() { sqlite3_close_v2(database_); }

Result<std::unique_ptr<HealthHistory>, Error> HealthHistory::open(const std::string& path) {
    const auto folder = std::filesystem::path(path).parent_path();
    std::error_code error;
    if (!folder.empty()) std::filesystem::create_directories(folder, error);
    sqlite3* database = nullptr;
    const int opened = sqlite3_open_v2(path.c_str(), &database,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<HealthHistory> history(new HealthHistory(database, path));
    if (opened != SQLITE_OK) return Failure{failure(path, database)};
    sqlite3_busy_timeout(database, kBusyTimeoutMs);
    // The write-ahead log lets readers and one writer work at once; FULL makes each commit durable
    // against a power cut too, which costs little at a reading an hour. The log is cut back to
    // 1 MB after it has been folded into the file.
    // Switching a new file to the log needs it to itself for a moment; another process opening it
    // at the same time makes the switch fail without waiting, so it is tried again.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
    for (;;) {
        Statement journal(database, "PRAGMA journal_mode = WAL");
        if (journal.step() == SQLITE_ROW && journal.text(0) == "wal") break;
        if (std::chrono::steady_clock::now() > deadline) return Failure{failure(path, database)};
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!execute(database, "PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON; PRAGMA journal_size_limit = 1048576"))
        return Failure{failure(path, database)};

    WriteTransaction migration(database);
    if (!migration.begun()) return Failure{failure(path, database)};
    std::int64_t applied = 0;
    {
        Statement version(database, "PRAGMA user_version");
        if (version.step() != SQLITE_ROW) return Failure{failure(path, database)};
        applied = version.integer(0);
    }
    constexpr auto known = static_cast<std::int64_t>(std::size(kMigrations));
    if (applied > known) {
        return Failure{text::isEnglish()
                           ? fmt::format("The health history {} was written by a newer version of Vantorix.", path)
                           : fmt::format("健康历史 {} 由更新版本的 Vantorix 写入。", path)};
    }
    for (auto step = applied; step < known; ++step) {
        if (!execute(database, kMigrations[step])) return Failure{failure(path, database)};
    }
    if (!execute(database, fmt::format("PRAGMA user_version = {}", known)) || !migration.commit())
        return Failure{failure(path, database)};
    return history;
}

Result<bool, Error> HealthHistory::record(const DriveIdentity& drive, const HealthSnapshot& reading) {
    const std::string key = drive.key();
    if (key.empty()) return false;
    if (reading.at - lastThinnedAt_ >= kDay) {
        if (auto thinned = thin(reading.at); !thinned) return Failure{thinned.error()};
    }
    WriteTransaction transaction(database_);
    if (!transaction.begun()) return Failure{failure(path_, database_)};
    const auto id = upsertDrive(database_, drive, reading.at);
    if (!id) return Failure{failure(path_, database_)};

    std::optional<HealthSnapshot> last;
    {
        Statement query(database_,
                        "SELECT " + readingColumns() + " FROM readings WHERE drive = ? ORDER BY at DESC LIMIT 1");
        const int found = query.bind(1, *id).step();
        if (found != SQLITE_ROW && found != SQLITE_DONE) return Failure{failure(path_, database_)};
        if (found == SQLITE_ROW) last = readingAt(query);
    }
    bool stored = false;
    const auto change = last ? changeBetween(*last, reading) : Change::notable;
    const std::int64_t age = last ? reading.at - last->at : 0;
    if (change == Change::notable || (change == Change::small && age >= kSmallChangesEvery.count()) ||
        age >= kRecordAtLeastEvery.count()) {
        std::string placeholders = "?, ?, ?";
        for (std::size_t i = 0; i < kFigureCount; ++i) placeholders += ", ?";
        // A reading of the same second from another recorder is the same reading.
        Statement insert(database_, "INSERT OR IGNORE INTO readings (drive, " + readingColumns() + ") VALUES (" +
                                        placeholders + ")");
        insert.bind(1, *id).bind(2, reading.at);
        insert.bind(3, reading.passed ? std::optional<double>(*reading.passed ? 1 : 0) : std::nullopt);
        for (std::size_t i = 0; i < kFigureCount; ++i) insert.bind(static_cast<int>(i) + 4, reading.figures[i]);
        if (!insert.run()) return Failure{failure(path_, database_)};
        stored = sqlite3_changes(database_) > 0;
    }
    for (const Figure figure : kGrowthFigures) {
        if (!reading[figure]) continue;
        Statement baseline(database_,
                           "INSERT OR IGNORE INTO baselines (drive, figure, value, set_at) VALUES (?, ?, ?, ?)");
        baseline.bind(1, *id).bind(2, std::string(figureName(figure))).bind(3, reading[figure]).bind(4, reading.at);
        if (!baseline.run()) return Failure{failure(path_, database_)};
    }
    if (!transaction.commit()) return Failure{failure(path_, database_)};
    return stored;
}

Result<std::vector<HealthSnapshot>, Error> HealthHistory::history(const std::string& key, std::int64_t since) const {
    std::vector<HealthSnapshot> readings;
    Statement query(database_, "SELECT " + readingColumns() +
                                   " FROM readings WHERE drive = (SELECT id FROM drives WHERE key = ?) AND at >= ? "
                                   "ORDER BY at");
    query.bind(1, key).bind(2, since);
    int step = SQLITE_ROW;
    while ((step = query.step()) == SQLITE_ROW) readings.push_back(readingAt(query));
    if (step != SQLITE_DONE) return Failure{failure(path_, database_)};
    return readings;
}

Result<std::optional<HealthSnapshot>, Error> HealthHistory::latest(const std::string& key) const {
    Statement query(database_, "SELECT " + readingColumns() +
                                   " FROM readings WHERE drive = (SELECT id FROM drives WHERE key = ?) "
                                   "ORDER BY at DESC LIMIT 1");
    const int step = query.bind(1, key).step();
    if (step == SQLITE_ROW) return std::optional(readingAt(query));
    if (step != SQLITE_DONE) return Failure{failure(path_, database_)};
    return std::optional<HealthSnapshot>();
}

Result<std::vector<Growth>, Error> HealthHistory::growth(const std::string& key) const {
    std::vector<Growth> growth;
    const auto id = driveId(database_, key);
    if (!id) return growth;
    for (const Figure figure : kGrowthFigures) {
        const std::string column(figureName(figure));
        Statement baseline(database_, "SELECT value, set_at FROM baselines WHERE drive = ? AND figure = ?");
        const int found = baseline.bind(1, *id).bind(2, column).step();
        if (found == SQLITE_DONE) continue;
        if (found != SQLITE_ROW) return Failure{failure(path_, database_)};
        Growth entry{figure, baseline.number(0).value_or(0), baseline.integer(1), 0, std::nullopt};
        Statement current(database_, fmt::format("SELECT {0} FROM readings WHERE drive = ? AND {0} IS NOT NULL "
                                                 "ORDER BY at DESC LIMIT 1",
                                                 column));
        entry.current = current.bind(1, *id).step() == SQLITE_ROW ? current.number(0).value_or(0) : entry.baseline;
        Statement grew(database_,
                       fmt::format("SELECT min(at) FROM readings WHERE drive = ? AND at >= ? AND {} > ?", column));
        if (grew.bind(1, *id).bind(2, entry.baselineAt).bind(3, entry.baseline).step() == SQLITE_ROW) {
            if (const auto at = grew.number(0)) entry.grewAt = static_cast<std::int64_t>(*at);
        }
        growth.push_back(entry);
    }
    return growth;
}

Result<std::vector<Growth>, Error> HealthHistory::acknowledge(const std::string& key, std::int64_t now) {
    {
        WriteTransaction transaction(database_);
        if (!transaction.begun()) return Failure{failure(path_, database_)};
        const auto id = driveId(database_, key);
        if (!id) return std::vector<Growth>();
        for (const Figure figure : kGrowthFigures) {
            const std::string column(figureName(figure));
            Statement set(database_, fmt::format("INSERT OR REPLACE INTO baselines (drive, figure, value, set_at, "
                                                 "acknowledged) SELECT drive, ?2, {0}, ?3, 1 FROM readings "
                                                 "WHERE drive = ?1 AND {0} IS NOT NULL ORDER BY at DESC LIMIT 1",
                                                 column));
            if (!set.bind(1, *id).bind(2, column).bind(3, now).run()) return Failure{failure(path_, database_)};
        }
        if (!transaction.commit()) return Failure{failure(path_, database_)};
    }
    return growth(key);
}

Result<std::vector<StoredDrive>, Error> HealthHistory::drives() const {
    std::vector<StoredDrive> drives;
    Statement query(database_, "SELECT key, wwn, model, serial, device, first_at, last_at FROM drives ORDER BY key");
    int step = SQLITE_ROW;
    while ((step = query.step()) == SQLITE_ROW) {
        drives.push_back(storedDrive(query));
    }
    if (step != SQLITE_DONE) return Failure{failure(path_, database_)};
    return drives;
}

Result<std::optional<StoredDrive>, Error> HealthHistory::driveSeenAs(const std::string& deviceName) const {
    auto all = drives();
    if (!all) return Failure{all.error()};
    std::optional<StoredDrive> newest;
    for (auto& drive : *all) {
        if (drive.identity.deviceHint == deviceName && (!newest || drive.lastAt > newest->lastAt)) newest = drive;
    }
    return newest;
}

Result<std::size_t, Error> HealthHistory::thin(std::int64_t now) {
    const std::int64_t before = now - kFullResolutionFor.count();
    Statement remove(database_,
                     "DELETE FROM readings WHERE at < ?1 AND (drive, at) NOT IN "
                     "(SELECT drive, max(at) FROM readings WHERE at < ?1 GROUP BY drive, at / 86400)");
    if (!remove.bind(1, before).run()) return Failure{failure(path_, database_)};
    lastThinnedAt_ = now;
    return static_cast<std::size_t>(sqlite3_changes(database_));
}

std::string HealthHistory::userPath() {
    std::string data = environment("XDG_DATA_HOME");
    if (data.empty() || data.front() != '/') {
        const std::string home = environment("HOME");
        if (home.empty() || home.front() != '/') return {};
        data = home + "/.local/share";
    }
    return data + "/vantorix/health.sqlite";
}

std::string HealthHistory::servicePath() {
    std::string state = environment("STATE_DIRECTORY");
    state = state.substr(0, state.find(':'));
    if (state.empty() || state.front() != '/') state = "/var/lib/vantorix";
    return state + "/health.sqlite";
}

Result<bool, Error> HealthHistory::recordRun(const DriveIdentity& drive, const BenchmarkRun& run) {
    if (!drive.known()) return false;
    WriteTransaction transaction(database_);
    if (!transaction.begun()) return Failure{failure(path_, database_)};
    const auto id = upsertDrive(database_, drive, run.finishedMs / 1000);
    if (!id) return Failure{failure(path_, database_)};
    Statement insert(database_,
                     "INSERT OR REPLACE INTO benchmark_runs (drive, finished_ms, kind, payload_bytes, figures, "
                     "page_cache, version) VALUES (?, ?, ?, ?, ?, ?, ?)");
    insert.bind(1, *id).bind(2, run.finishedMs).bind(3, run.kind);
    insert.bind(4, static_cast<std::int64_t>(run.payloadBytes)).bind(5, run.figures).bind(6, run.pageCache);
    if (!insert.bind(7, run.version).run() || !transaction.commit()) return Failure{failure(path_, database_)};
    return true;
}

Result<std::vector<BenchmarkRun>, Error> HealthHistory::runs(const std::string& key) const {
    std::vector<BenchmarkRun> runs;
    Statement query(database_,
                    "SELECT finished_ms, kind, payload_bytes, figures, page_cache, version FROM benchmark_runs "
                    "WHERE drive = (SELECT id FROM drives WHERE key = ?) ORDER BY finished_ms, kind");
    query.bind(1, key);
    int step = SQLITE_ROW;
    while ((step = query.step()) == SQLITE_ROW) {
        runs.push_back({query.integer(0), query.text(1), static_cast<std::uint64_t>(query.integer(2)), query.text(3),
                        query.text(4), query.text(5)});
    }
    if (step != SQLITE_DONE) return Failure{failure(path_, database_)};
    return runs;
}

}  // namespace vantorix::health
