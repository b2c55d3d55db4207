#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "health/HealthHistory.h"
#include "health/HealthRecorder.h"
#include "support/ManualMainExecutor.h"
#include "support/TemporaryFolder.h"

namespace vantorix::health {
namespace {

using testing::TemporaryFolder;

std::string fixture(const std::string& name) {
    std::ifstream file(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(DriveHealth, ReadingsOfSmartctlAnswers) {
    const auto ata = driveReadingFromJson(fixture("scrutiny-smart-ata-full.json"), 100, "sdz");
    ASSERT_TRUE(ata);
    EXPECT_EQ(ata->identity.key(), "wwn:0x5002538e40a22954");
    EXPECT_EQ(ata->identity.serial, "S3YZNB0KB00864E");
    const auto& a = ata->snapshot;
    EXPECT_EQ(a.at, 100);
    EXPECT_EQ(a.passed, true);
    EXPECT_EQ(a[Figure::temperature], 36);
    EXPECT_EQ(a[Figure::powerOnHours], 14551);
    EXPECT_EQ(a[Figure::percentageUsed], 19);  // Wear_Leveling_Count's normalised 81
    EXPECT_EQ(a[Figure::reallocatedSectors], 0);
    EXPECT_EQ(a[Figure::uncorrectableSectors], 0);  // 198 is absent: 187
    EXPECT_EQ(a[Figure::crcErrors], 0);
    EXPECT_EQ(a[Figure::bytesWritten], 64777770148.0 * 512);
    EXPECT_FALSE(a[Figure::mediaErrors]);
    EXPECT_EQ(ata->temperatureLimit, 70);

    const auto nvme = driveReadingFromJson(fixture("scrutiny-smart-nvme.json"), 0);
    ASSERT_TRUE(nvme);
    EXPECT_EQ(nvme->identity.key(), "model-serial:INTEL SSDPEKNW010T8/BTNH93710FS91P0B");
    EXPECT_EQ(nvme->snapshot[Figure::unsafeShutdowns], 43);
    EXPECT_EQ(nvme->snapshot[Figure::bytesRead], 9511859.0 * 512000);
    EXPECT_EQ(nvme->snapshot[Figure::mediaErrors], 0);
    EXPECT_EQ(nvme->criticalWarning, 0);
    EXPECT_FALSE(nvme->snapshot[Figure::reallocatedSectors]);

    EXPECT_FALSE(driveReadingFromJson("not json", 0));
    EXPECT_FALSE(DriveIdentity{}.known());  // neither WWN nor serial: nothing to key the history by
}

HealthSnapshot reading(std::int64_t at, double temperature, double reallocated, double written = 1e12) {
    HealthSnapshot snapshot;
    snapshot.at = at;
    snapshot.passed = true;
    snapshot[Figure::temperature] = temperature;
    snapshot[Figure::reallocatedSectors] = reallocated;
    snapshot[Figure::bytesWritten] = written;
    return snapshot;
}

const DriveIdentity kDrive{"0x5000000000000001", "Disk", "S1", "sdb", {}};

TEST(HealthHistory, StoresChangesAndHourlyReadingsAndMeasuresGrowthFromTheBaseline) {
    const TemporaryFolder folder;
    auto opened = HealthHistory::open(folder.string() + "/nested/health.sqlite");
    ASSERT_TRUE(opened) << opened.error();
    auto& history = **opened;
    const std::int64_t t0 = 1'790'000'000;
    struct Step {
        HealthSnapshot reading;
        bool stored;
    };
    const Step steps[] = {
        {reading(t0, 36, 0), true},                // first
        {reading(t0 + 60, 36, 0, 2e12), false},    // only what grows with use
        {reading(t0 + 120, 37, 0), false},         // a degree, within ten minutes
        {reading(t0 + 180, 41, 0), true},          // a step of the temperature
        {reading(t0 + 779, 42, 0), false},         // a degree, ten minutes less a second after
        {reading(t0 + 780, 42, 0), true},          // ... and ten minutes after
        {reading(t0 + 4379, 42, 0, 3e12), false},  // unchanged for less than an hour
        {reading(t0 + 4380, 42, 0, 3e12), true},   // an hour since the last stored one
        {reading(t0 + 4500, 42, 8, 3e12), true},   // reallocated sectors grew
    };
    for (const auto& step : steps) {
        const auto stored = history.record(kDrive, step.reading);
        ASSERT_TRUE(stored) << stored.error();
        EXPECT_EQ(*stored, step.stored) << step.reading.at;
    }
    EXPECT_EQ(history.history(kDrive.key())->size(), 5u);
    EXPECT_EQ(history.history(kDrive.key(), t0 + 4380)->size(), 2u);
    EXPECT_EQ((*history.driveSeenAs("sdb"))->key, kDrive.key());

    auto growth = *history.growth(kDrive.key());
    ASSERT_EQ(growth.size(), 1u);  // the only growth figure the readings carry
    EXPECT_EQ(growth[0].figure, Figure::reallocatedSectors);
    EXPECT_EQ(growth[0].amount(), 8);
    EXPECT_EQ(growth[0].grewAt, t0 + 4500);

    EXPECT_EQ((*history.acknowledge(kDrive.key(), t0 + 5000))[0].amount(), 0);
    ASSERT_TRUE(history.record(kDrive, reading(t0 + 6000, 42, 9, 3e12)));
    growth = *history.growth(kDrive.key());
    EXPECT_EQ(growth[0].baseline, 8);
    EXPECT_EQ(growth[0].amount(), 1);
    EXPECT_EQ(growth[0].grewAt, t0 + 6000);

    // A year later the readings of the first day are thinned to that day's last.
    EXPECT_EQ(*history.thin(t0 + 365 * 86'400 + 86'400), 5u);
    EXPECT_EQ(history.history(kDrive.key())->size(), 1u);
}

// Writers in other processes: each reports on a pipe every reading that record() says it stored,
// so the reading was committed; whatever happens to the writer after that, it must be in the file.
pid_t startWriter(const std::string& path, std::int64_t first, int count, int reportTo) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    auto history = HealthHistory::open(path);
    if (!history) ::_exit(2);
    for (std::int64_t at = first; at < first + count; ++at) {
        const auto stored = (*history)->record(kDrive, reading(at, 40, static_cast<double>(at)));  // a count: stored
        if (!stored) ::_exit(3);
        if (*stored && ::write(reportTo, &at, sizeof at) != sizeof at) ::_exit(4);
    }
    ::_exit(0);
}

std::set<std::int64_t> reported(int from) {
    std::set<std::int64_t> ats;
    std::int64_t at = 0;
    while (::read(from, &at, sizeof at) == sizeof at) ats.insert(at);
    return ats;
}

TEST(HealthHistory, ConcurrentAndKilledWritersLoseNoCommittedReading) {
    const TemporaryFolder folder;
    const std::string path = folder.string() + "/health.sqlite";
    std::set<std::int64_t> committed;
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);

    // Two recorders at once, to the end.
    const pid_t first = startWriter(path, 1'000'000, 300, pipeEnds[1]);
    const pid_t second = startWriter(path, 2'000'000, 300, pipeEnds[1]);
    for (const pid_t writer : {first, second}) {
        int status = 0;
        ASSERT_EQ(::waitpid(writer, &status, 0), writer);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    // Fifty writers killed at a random moment of their writing.
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        const pid_t writer = startWriter(path, 3'000'000 + round * 1000, 1000, pipeEnds[1]);
        std::this_thread::sleep_for(std::chrono::microseconds(2000 + random() % 20000));
        ::kill(writer, SIGKILL);
        ::waitpid(writer, nullptr, 0);
    }
    ::close(pipeEnds[1]);
    committed = reported(pipeEnds[0]);
    ::close(pipeEnds[0]);
    EXPECT_GT(committed.size(), 600u);  // the killed writers got some way too

    auto history = HealthHistory::open(path);
    ASSERT_TRUE(history) << history.error();
    const auto readings = (*history)->history(kDrive.key());
    ASSERT_TRUE(readings);
    std::set<std::int64_t> stored;
    for (const auto& snapshot : *readings) stored.insert(snapshot.at);
    for (const auto at : committed) ASSERT_TRUE(stored.count(at)) << at;

    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* check = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database, "PRAGMA integrity_check", -1, &check, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
    sqlite3_finalize(check);
    sqlite3_close(database);
}

// The recorder's work runs on its queue; the main thread only hears of readings stored and gets
// the history it asked for.
TEST(HealthRecorder, RecordsAnswersOffTheMainThreadAndLoadsTheDrivesHistory) {
    const TemporaryFolder folder;
    auto main = std::make_shared<ManualMainExecutor>();
    std::int64_t clock = 1'790'000'000;
    HealthRecorder recorder(folder.string() + "/health.sqlite", main, [&clock] { return clock += 60; });
    std::vector<std::string> stored;
    recorder.setRecordedObserver([&stored](const std::string& device) { stored.push_back(device); });
    auto answer = nlohmann::json::parse(fixture("scrutiny-smart-ata-full.json"));
    for (const int temperature : {36, 36, 40}) {
        answer["temperature"]["current"] = temperature;
        recorder.record("sdc", answer.dump());
    }
    recorder.record("sdc", "not json");
    recorder.drain();
    main->drain();
    EXPECT_EQ(stored, (std::vector<std::string>{"sdc", "sdc"}));  // the repeated reading is not stored again

    std::vector<std::optional<DriveHistory>> loaded;
    for (const std::string device : {"sdc", "sdq"}) {
        recorder.loadHistory(device, 0, [&loaded](std::optional<DriveHistory> history) { loaded.push_back(history); });
    }
    recorder.drain();
    main->drain();
    ASSERT_EQ(loaded.size(), 2u);
    ASSERT_TRUE(loaded[0]);
    EXPECT_EQ(loaded[0]->identity.wwn, "0x5002538e40a22954");
    EXPECT_EQ(loaded[0]->readings.size(), 2u);
    EXPECT_FALSE(loaded[1]);  // never seen

    HealthRecorder unusable(folder.string(), main);  // a folder, not a file
    bool answered = false;
    unusable.loadHistory("sdc", 0, [&](std::optional<DriveHistory> history) {
        answered = !history && unusable.lastError().has_value();
    });
    unusable.drain();
    main->drain();
    EXPECT_TRUE(answered);
}

TEST(HealthHistory, SaysWhyAFileCannotBeUsed) {
    const TemporaryFolder folder;
    const std::string notDatabase = folder.string() + "/garbage.sqlite";
    std::ofstream(notDatabase) << std::string(4096, 'x');
    struct Case {
        std::string path;
        std::string says;
    };
    for (const auto& c : {Case{notDatabase, "not a database"}, Case{folder.string(), "cannot be used"}}) {
        const auto opened = HealthHistory::open(c.path);
        ASSERT_FALSE(opened) << c.path;
        EXPECT_NE(opened.error().find(c.says), std::string::npos) << opened.error();
    }
}

}  // namespace
}  // namespace vantorix::health
