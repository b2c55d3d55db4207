// The drive-health history's costs.
//
// 1. The main thread's share of recording one SMART refresh in the desktop application: the round
//    observer hands the answer to the HealthRecorder (a copy of smartctl's JSON and a post to the
//    recorder's queue), and later runs the recorder's "stored" notice. Both are timed for each of
//    N refreshes of a real smartctl answer (tests/data/smartctl/scrutiny-smart-ata-full.json, 38 KB)
//    whose temperature steps by 3 °C every time, so every reading is stored (the dearest case). The recorder's own work
//    (parsing the answer and one committed transaction) runs on its queue and is timed apart.
// 2. The file's size after a year of hourly readings of one drive (every reading differs, so every
//    one is stored), and after a second year, when the first is thinned to one reading a day.
//
// Run: build/release/bench/vantorix_health_history_bench [refreshes]
#include <fmt/format.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

#include "health/HealthRecorder.h"
#include "support/ManualMainExecutor.h"
#include "support/TemporaryFolder.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace vantorix;

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// CPU time of the calling thread, in ms.
double threadCpuMs() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void print(const char* name, std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const auto at = [&](double q) {
        return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1))];
    };
    std::printf("  %-34s median %.4f  p99 %.4f  max %.4f ms\n", name, at(0.5), at(0.99), values.back());
}

double megabytes(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<double>(size) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    const int refreshes = argc > 1 ? std::max(10, std::atoi(argv[1])) : 500;
    std::ifstream file(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-ata-full.json");
    auto answer = nlohmann::json::parse(std::string(std::istreambuf_iterator<char>(file), {}));

    const testing::TemporaryFolder folder;
    auto main = std::make_shared<ManualMainExecutor>();
    std::int64_t clock = 1'790'000'000;
    health::HealthRecorder recorder(folder.string() + "/health.sqlite", main, [&clock] { return clock += 1; });
    int stored = 0;
    recorder.setRecordedObserver([&stored](const std::string&) { ++stored; });
    std::vector<std::string> answers;
    for (int i = 0; i < refreshes; ++i) {
        answer["temperature"]["current"] = 30 + i % 2 * 3;  // a step each time: every reading is stored
        answer["power_on_time"]["hours"] = 14551 + i;
        answers.push_back(answer.dump());
    }
    std::vector<double> handOver;
    std::vector<double> handOverCpu;
    std::vector<double> notice;
    std::vector<double> queueWork;
    for (const auto& text : answers) {
        const auto start = Clock::now();
        const double cpuStart = threadCpuMs();
        recorder.record("sda", text);  // the observer copies the answer it is given
        handOverCpu.push_back(threadCpuMs() - cpuStart);
        handOver.push_back(ms(Clock::now() - start));
        const auto queued = Clock::now();
        recorder.drain();
        queueWork.push_back(ms(Clock::now() - queued));
        const auto noticeStart = Clock::now();
        main->drain();
        notice.push_back(ms(Clock::now() - noticeStart));
    }
    std::printf("Recording %d refreshes of a %zu-byte smartctl answer (%d stored)\n", refreshes, answers[0].size(),
                stored);
    print("main thread: hand-over (wall)", handOver);
    print("main thread: hand-over (thread CPU)", handOverCpu);
    print("main thread: stored notice", notice);
    print("recorder queue: parse + commit", queueWork);

    // A year of hourly readings, then a second one.
    const std::string path = folder.string() + "/year.sqlite";
    auto history = health::HealthHistory::open(path);
    if (!history) {
        std::fprintf(stderr, "%s\n", history.error().c_str());
        return 1;
    }
    const health::DriveIdentity drive{"0x5002538e40a22954", "Samsung SSD 860 EVO 500GB", "S3YZNB0KB00864E", "sda", {}};
    auto reading = health::driveReadingFromJson(answers[0], 0)->snapshot;
    const std::int64_t start = 1'790'000'000;
    constexpr int kHoursPerYear = 24 * 365;
    for (int year = 1; year <= 2; ++year) {
        const auto begun = Clock::now();
        for (int hour = (year - 1) * kHoursPerYear; hour < year * kHoursPerYear; ++hour) {
            reading.at = start + hour * 3600LL;
            reading[health::Figure::temperature] = 30 + hour % 17;
            reading[health::Figure::powerOnHours] = 14551 + hour;
            reading[health::Figure::bytesWritten] = 3.3e13 + hour * 1.1e9;
            if (!(*history)->record(drive, reading)) return 1;
        }
        const auto readings = (*history)->history(drive.key());
        const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
        const double log = megabytes(path + "-wal");
        history = health::HealthHistory::open(path);  // the last connection to close folds the log in
        std::printf(
            "After %d year(s) of hourly readings: %zu readings kept; %.2f MB file (%.2f MB with the log "
            "before it is folded in); %.1f s to write\n",
            year, readings ? readings->size() : 0, megabytes(path), megabytes(path) + log, seconds);
    }
    return 0;
}
