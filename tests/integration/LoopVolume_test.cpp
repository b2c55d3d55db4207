#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "integration/HelperTestClient.h"
#include "support/BlockDevice.h"
#include "support/LoopVolume.h"
#include "support/Process.h"
#include "support/TemporaryFolder.h"
#include "text/Utf8.h"

namespace vantorix {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using json = nlohmann::json;
using testing::LoopVolume;
using testing::RunningProcess;

// A loop volume whose label, mount point and folder are bytes that are not UTF-8, and whose "drive"
// is the real helper running a smartctl stand-in that prints a saved NVMe answer with exit status 4
// ("some SMART command failed": a bit that still comes with usable JSON).
class LiveVolume : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
        std::string error;
        volume_ = LoopVolume::create("vx-\xff\xfe", 256ull << 20, &error, "mnt\xff");  // for 160 MiB written
        ASSERT_TRUE(volume_) << error;
        fs::create_directory(volume_->mountPoint() + "/dir\xfe");
        using testing::StandInBehaviour;
        standIn_ = testing::SmartctlStandIn::create({StandInBehaviour::Mode::print, testing::kHelperFixture, "", 4});
        helper_ = testing::startHelper(standIn_->path());
        ASSERT_TRUE(helper_);
    }
    void TearDown() override {
        if (exporter_) {
            exporter_->signal(SIGTERM);
            EXPECT_EQ(exporter_->waitForExit(10s), 128 + SIGTERM) << exporter_->standardError();
        }
    }
    testing::Environment environment(const std::string& language = "en_US") const {
        return {{"LANGUAGE", language},
                {"LC_ALL", std::nullopt},
                {"VANTORIX_LOG", "off"},
                {"VANTORIX_HELPER_SOCKET", helper_->socketPath()}};
    }
    testing::ProcessResult smart(const std::vector<std::string>& args, const std::string& language = "en_US") const {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "smart"};
        argv.insert(argv.end(), args.begin(), args.end());
        return testing::runProcess(argv, environment(language));
    }
    // `serve` for the volume's folder, its health history beside the volume's mount point.
    void startExporter(const std::vector<std::string>& options = {}) {
        port_ = testing::freeLoopbackPort();
        started_ = std::chrono::steady_clock::now();
        std::vector<std::string> argv{VANTORIX_CLI_PATH,   "serve",   "--listen", "127.0.0.1:" + std::to_string(port_),
                                      "--precision",       "100",     "--volume", volume_->mountPoint() + "/dir\xfe",
                                      "--health-database", database()};
        argv.insert(argv.end(), options.begin(), options.end());
        exporter_ = RunningProcess::start(argv, {{"VANTORIX_HELPER_SOCKET", helper_->socketPath()}});
        ASSERT_TRUE(testing::eventually([&] { return static_cast<bool>(client().Get("/metrics")); }))
            << exporter_->standardError();
    }
    std::string database() const { return (beside() / "health.sqlite").string(); }
    // How old the drive's figures are by the exporter's own account; negative before it has any.
    double smartDataAge() const {
        const auto metrics = scrape();
        const auto at = metrics.find("\nvantorix_smart_data_age_seconds{");
        return at == std::string::npos ? -1 : std::stod(metrics.substr(metrics.find("} ", at) + 2));
    }
    fs::path beside() const { return fs::path(volume_->mountPoint()).parent_path(); }
    std::string scrape() const {
        const auto r = client().Get("/metrics");
        return r && r->status == 200 ? r->body : std::string();
    }
    // The ATA fixture as a drive answers it with this temperature and reallocated sector count,
    // saved beside the volume; `extra` is merged in.
    std::string ataAnswer(int temperature, int reallocated, const json& extra = json::object()) const {
        auto document = json::parse(testing::fileContents(kAtaFixture));
        document["temperature"]["current"] = temperature;
        auto& rows = document["ata_smart_attributes"]["table"];
        for (auto& row : rows)
            if (row["id"] == 5) row["raw"]["value"] = reallocated;
        rows.push_back({{"id", 197}, {"name", "Current_Pending_Sector"}, {"raw", {{"value", 0}}}});
        document.update(extra);
        const auto path = beside() / fmt::format("ata-{}-{}.json", temperature, reallocated);
        std::ofstream(path) << document.dump();
        return path.string();
    }
    // Saves a MiB (a new file, or over the first MiB of the one written before) as a program saving
    // a file does, sync included: the device completes its writes at once, then nothing for a while.
    void save(std::optional<std::size_t> inPlace = 0) const {
        ASSERT_TRUE(testing::writeDirect(volume_->mountPoint() + "/once", 1, inPlace));
        ::sync();
    }
    static inline const std::string kAtaFixture = std::string(VANTORIX_TEST_DATA_DIR) +
                                                  "/smartctl/scrutiny-smart-ata-full.json";

    httplib::Client client() const {
        httplib::Client c("127.0.0.1", port_);
        c.set_connection_timeout(5);
        c.set_read_timeout(10);
        return c;
    }
    // The labels of the volume's series: its mount point, whatever folder was given, with U+FFFD for
    // the byte that is not UTF-8.
    std::string labels() const {
        const std::string& mountPoint = volume_->mountPoint();
        return "{device=\"" + volume_->deviceName() + "\",mountpoint=\"" + mountPoint.substr(0, mountPoint.size() - 1) +
               "\uFFFD\"}";
    }

    std::unique_ptr<LoopVolume> volume_;
    std::unique_ptr<testing::SmartctlStandIn> standIn_;
    std::unique_ptr<testing::HelperDaemon> helper_;
    int port_ = 0;
    std::chrono::steady_clock::time_point started_;
    std::unique_ptr<RunningProcess> exporter_;
};

TEST_F(LiveVolume, SmartShowsTheDrivesDataThroughTheHelperInTheUsersLanguage) {
    const auto human = smart({volume_->mountPoint()});
    ASSERT_EQ(human.exitStatus, 0) << human.err;
    EXPECT_EQ(human.out.substr(0, human.out.find("Model")),
              "Overall Status  PASSED\n\nSerial Number                              BTNH93710FS91P0B\n");
    const auto chinese = smart({volume_->mountPoint()}, "zh_CN:en");
    EXPECT_EQ(chinese.out.substr(0, chinese.out.find("型号")),
              "总体状态  PASSED\n\n序列号                                     BTNH93710FS91P0B\n");
    const auto document = smart({volume_->mountPoint(), "--json"});
    ASSERT_EQ(document.exitStatus, 0) << document.err;
    // The rows are the watch's and the interpreter's tests'; here, the command the helper ran.
    EXPECT_EQ(json::parse(document.out)["sourceCommand"],
              standIn_->path() + " --json -a -n standby " + volume_->device());
    // The loop device has no partition: one name to try. A request within a second of the last
    // run's end shares that run, so a command may not start smartctl again.
    const std::vector<std::string> arguments{"--json", "-a", "-n", "standby", volume_->device()};
    const auto starts = standIn_->starts();
    ASSERT_FALSE(starts.empty());
    EXPECT_LE(starts.size(), 3U);
    for (const auto& start : starts) EXPECT_EQ(start, arguments);

    // The performance test's report carries the drive's SMART data.
    const auto run = testing::runProcess({VANTORIX_CLI_PATH, "bench", volume_->mountPoint(), "--json",
                                          "--payload-bytes", "4000000", "--random-seconds", "0.1"},
                                         environment());
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    fs::path path;  // its JSON path shows the mount point's byte as U+FFFD
    for (const auto& entry : fs::directory_iterator(volume_->mountPoint())) {
        if (entry.path().extension() == ".html") path = entry.path();
    }
    const std::string html = testing::fileContents(path);
    EXPECT_THAT(html, HasSubstr("<strong>Overall Status:</strong> PASSED"));
    EXPECT_THAT(html, HasSubstr("BTNH93710FS91P0B"));
}

TEST_F(LiveVolume, SmartWatchPublishesEveryRefreshWithFreshRowsAndTheChangeOnce) {
    auto watch = testing::RunningProcess::start(
        {VANTORIX_CLI_PATH, "smart", volume_->mountPoint(), "--watch", "--json"}, environment());
    const auto next = [&] {
        const auto line = watch->readLine(10s);
        EXPECT_TRUE(line.has_value()) << watch->standardError();
        return line ? json::parse(*line) : json();
    };
    // Every interpretation makes fresh row ids, so the unchanged answer is published again.
    const auto first = next()["smart"], second = next()["smart"];
    EXPECT_EQ(first["overallStatus"], "PASSED");
    EXPECT_EQ(second["details"][0]["value"], first["details"][0]["value"]);
    EXPECT_NE(second["details"][0]["id"], first["details"][0]["id"]);

    // Another drive's answer: its serial number, the first row, shows from the first refresh after
    // the change (or the one after, when a request still shared the run before it) and stays.
    standIn_->setBehaviour(
        testing::printing(std::string(VANTORIX_TEST_DATA_DIR) + "/smartctl/scrutiny-smart-nvme-failed.json"));
    std::string serials;
    for (int i = 0; i < 4; ++i) serials += next()["smart"]["details"][0]["value"] == "S466NX0M776250H" ? '+' : '-';
    EXPECT_TRUE(serials == "++++" || serials == "-+++") << serials;
    watch->signal(SIGINT);
    EXPECT_EQ(watch->waitForExit(10s), 130);
}

// helper status and enable, with the volume's helper and with none; with --json, standard output
// carries the one JSON document.
TEST_F(LiveVolume, HelperCommandsReportTheHelperTheyFind) {
    const auto helper = [&](const std::string& command, const std::string& socket, int status) {
        auto environment = this->environment();
        environment["VANTORIX_HELPER_SOCKET"] = socket;
        const auto run = testing::runProcess({VANTORIX_CLI_PATH, "helper", command, "--json"}, environment);
        EXPECT_EQ(run.exitStatus, status) << command << run.err;
        return json::parse(run.out);
    };
    EXPECT_EQ(helper("status", "/nonexistent/helper.sock", 0)["status"], "needsAdministrator");
    EXPECT_THAT(helper("enable", "/nonexistent/helper.sock", 1)["message"].get<std::string>(),
                HasSubstr("No Vantorix SMART helper running as root answers at"));
    const auto present = helper("status", helper_->socketPath(), 0);
    EXPECT_EQ(present["status"], "enabled");
    EXPECT_EQ(present["helperVersion"], VANTORIX_VERSION);
    EXPECT_EQ(helper("enable", helper_->socketPath(), 0)["success"], true);
}

TEST_F(LiveVolume, ExporterPrometheusSeesTheBytesWrittenAndBurstsAboveItsOneSecondRate) {
    if (!fs::exists("/usr/bin/prometheus") || !fs::exists("/usr/bin/promtool"))
        GTEST_SKIP() << "Prometheus is not installed";
    startExporter();
    const fs::path dir = fs::path(volume_->mountPoint()).parent_path() / "prometheus";
    fs::create_directories(dir);
    const int prometheusPort = testing::freeLoopbackPort();
    std::ofstream(dir / "prometheus.yml") << "global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\n"
                                             "scrape_configs:\n  - job_name: vantorix\n    static_configs:\n"
                                             "      - targets: ['127.0.0.1:"
                                          << port_ << "']\n";
    auto prometheus = RunningProcess::start({"/usr/bin/prometheus",
                                             "--config.file=" + (dir / "prometheus.yml").string(),
                                             "--storage.tsdb.path=" + (dir / "data").string(),
                                             "--web.listen-address=127.0.0.1:" + std::to_string(prometheusPort)});
    httplib::Client api("127.0.0.1", prometheusPort);
    const auto ready = [&] {
        const auto r = api.Get("/-/ready");
        return r && r->status == 200;
    };
    ASSERT_TRUE(testing::eventually(ready, 30s)) << prometheus->standardError();

    // The file is written once before the measured stretch; then bursts overwrite it in place.
    const std::string file = volume_->mountPoint() + "/data";
    constexpr std::size_t kBurst = 8u << 20, kBursts = 20;
    ASSERT_TRUE(testing::writeDirect(file, kBurst * kBursts >> 20U));
    ::sync();

    const auto query = [&](const std::string& promql, double at) -> std::optional<double> {
        auto r = api.Get("/api/v1/query", httplib::Params{{"query", promql}, {"time", std::to_string(at)}}, {});
        if (!r || r->status != 200) return std::nullopt;
        const auto body = json::parse(r->body, nullptr, false);
        const auto& result = body["data"]["result"];
        if (!result.is_array() || result.empty()) return std::nullopt;
        return std::stod(result[0]["value"][1].get<std::string>());
    };
    const auto now = [] {
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    };
    const std::string device = "{device=\"" + volume_->deviceName() + "\"}";
    // Prometheus has scraped all that the device has written so far.
    const auto settled = [&] {
        const auto seen = query("vantorix_volume_written_bytes_total" + device, now());
        return seen && *seen == static_cast<double>(testing::deviceCounters(volume_->deviceName())[1]);
    };
    ASSERT_TRUE(testing::eventually(settled, 60s));
    const double before = now();
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < kBursts; ++i) {
        ASSERT_TRUE(testing::writeDirect(file, kBurst >> 20U, i * kBurst));
        std::this_thread::sleep_until(start + static_cast<int>(i + 1) * 2500ms);
    }
    ASSERT_TRUE(testing::eventually(settled, 60s));
    const double after = now();
    const std::string range = "[" + std::to_string(static_cast<int>(after - before) + 2) + "s";

    const auto written0 = query("vantorix_volume_written_bytes_total" + device, before);
    const auto written1 = query("vantorix_volume_written_bytes_total" + device, after);
    ASSERT_TRUE(written0 && written1);
    const double moved = *written1 - *written0;
    EXPECT_NEAR(moved, double(kBurst) * kBursts, 0.01 * kBurst * kBursts) << moved;

    const auto burst = query("max_over_time(vantorix_volume_write_peak_bytes_per_second" + device + range + "])",
                             after);
    const auto rate = query(
        "max_over_time(irate(vantorix_volume_written_bytes_total" + device + "[3s])" + range + ":1s])", after);
    ASSERT_TRUE(burst && rate);
    EXPECT_GE(*burst, *rate);
    EXPECT_GT(*rate, 0);
    // The await: the mean Prometheus computes from the counters over any window stays at or below the
    // highest await of one sampling interval (over a range reaching back as far as the first window).
    const std::string writes = "{device=\"" + volume_->deviceName() + "\",direction=\"write\"}";
    const std::string wider = "[" + std::to_string(static_cast<int>(after - before) + 5) + "s]";
    const auto awaitPeak = query("max_over_time(vantorix_volume_await_peak_seconds" + writes + wider + ")", after);
    const auto awaitMean = query("max_over_time((rate(vantorix_volume_write_time_seconds_total" + device +
                                     "[3s]) / rate(vantorix_volume_writes_completed_total" + device + "[3s]))" + range +
                                     ":1s])",
                                 after);
    ASSERT_TRUE(awaitPeak && awaitMean);
    // A window holding one interval's requests only has a mean equal to that interval's await, up to
    // the rounding of two divisions.
    EXPECT_GE(*awaitPeak * (1 + 1e-9), *awaitMean);

    // promtool accepts what the exporter serves, SMART figures included; smartctl ran at most once a minute.
    auto metrics = client().Get("/metrics");
    ASSERT_TRUE(metrics);
    const std::string drive = labels().substr(0, labels().size() - 1) + R"(,wwn="",serial="BTNH93710FS91P0B"})";
    for (const std::string& line :
         {"passed" + drive + " 1", "temperature_celsius" + drive + " 36", "power_on_seconds" + drive + " 8643600"}) {
        EXPECT_NE(metrics->body.find("\nvantorix_smart_" + line + "\n"), std::string::npos) << line;
    }
    const auto minutes =
        std::chrono::duration_cast<std::chrono::minutes>(std::chrono::steady_clock::now() - started_).count();
    EXPECT_GE(standIn_->starts().size(), 1u);
    EXPECT_LE(standIn_->starts().size(), static_cast<std::size_t>(minutes + 1));
    std::ofstream(dir / "metrics.txt") << metrics->body;
    const auto check = testing::runShell("promtool check metrics < " + (dir / "metrics.txt").string());
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;

    prometheus->signal(SIGTERM);
    EXPECT_TRUE(prometheus->waitForExit(20s));
    fs::remove_all(dir);
}

// 200 scrapes at once are all answered, with the volume's series (valid UTF-8, U+FFFD in its labels);
// a volume that goes the way a pulled disk does is dropped and the exporter carries on.
TEST_F(LiveVolume, ExporterAnswersEveryScrapeAndDropsAVanishedVolume) {
    startExporter();
    std::atomic<int> answered{0};
    std::vector<std::thread> scrapers;
    for (int i = 0; i < 200; ++i) {
        scrapers.emplace_back([&] {
            const auto r = client().Get("/metrics");
            const std::string series = "\nvantorix_volume_written_bytes_total" + labels() + " ";
            const bool served = r && r->status == 200 && r->body.find(series) != std::string::npos;
            if (served && text::isValidUtf8(r->body)) ++answered;
        });
    }
    for (auto& t : scrapers) t.join();
    EXPECT_EQ(answered, 200);
    const auto missing = client().Get("/nothing");
    EXPECT_TRUE(missing && missing->status == 404);

    ASSERT_TRUE(volume_->removeDevice());
    EXPECT_TRUE(testing::eventually([&] {
        const auto r = client().Get("/metrics");
        return r && r->status == 200 && r->body.find("vantorix_volumes 0\n") != std::string::npos;
    }));
}

// The exporter asks an idle drive once, however many SMART intervals pass, and once more after a
// write to its volume.
TEST_F(LiveVolume, ExporterLeavesAnIdleDriveAloneUntilItsVolumeIsUsed) {
    save(std::nullopt);
    startExporter({"--smart-interval", "1"});
    std::this_thread::sleep_for(8s);
    EXPECT_EQ(standIn_->starts().size(), 1u);
    save();
    EXPECT_TRUE(testing::eventually([&] { return standIn_->starts().size() == 2; }, 30s));
    std::this_thread::sleep_for(4s);
    EXPECT_EQ(standIn_->starts().size(), 2u);
    // The figures are those of the second run, however long ago it was.
    const double age = smartDataAge();
    EXPECT_GE(age, 1);
    EXPECT_LT(age, 30);
}

// A reading whose reallocated sectors grew shows the growth, under the drive's WWN and serial, until
// someone acknowledges it in the same history file.
TEST_F(LiveVolume, ExporterShowsGrowthSinceBaselineUntilAcknowledged) {
    save(std::nullopt);
    standIn_->setBehaviour(testing::printing(ataAnswer(36, 0)));
    startExporter({"--smart-interval", "1"});
    const std::string drive = labels().substr(0, labels().size() - 1) +
                              R"(,wwn="0x5002538e40a22954",serial="S3YZNB0KB00864E")";
    const auto shows = [&](const std::string& growth, int temperature) {
        const auto metrics = scrape();
        return metrics.find("\nvantorix_smart_growth_since_baseline" + drive + R"(,attribute="reallocated_sectors"} )" +
                            growth + "\n") != std::string::npos &&
               metrics.find("\nvantorix_smart_temperature_celsius" + drive + "} " + std::to_string(temperature) +
                            "\n") != std::string::npos;
    };
    ASSERT_TRUE(testing::eventually([&] { return shows("0", 36); }, 30s)) << scrape();
    standIn_->setBehaviour(testing::printing(ataAnswer(41, 8)));
    // The helper gives a request the run that ended less than a second before it: the write that
    // makes the exporter ask comes once the last run is older than that (or its answer is the new one).
    ASSERT_TRUE(testing::eventually([&] { return smartDataAge() > 2.5 || shows("8", 41); }, 30s)) << scrape();
    save();
    ASSERT_TRUE(testing::eventually([&] { return shows("8", 41); }, 30s)) << scrape();

    EXPECT_EQ(standIn_->starts().size(), 2u);
    // The administrator acknowledges in the service's history; the exporter reads it again.
    const auto acknowledged = smart({volume_->mountPoint(), "--acknowledge", "--database", database()});
    ASSERT_EQ(acknowledged.exitStatus, 0) << acknowledged.err;
    EXPECT_TRUE(testing::eventually([&] { return shows("0", 41); }, 30s)) << scrape();
}

// Every metric the Grafana dashboard and the alert rules ask for is one a running exporter serves,
// for a drive that reports every figure (an ATA answer with an NVMe health log).
TEST_F(LiveVolume, DashboardAndAlertRulesAskOnlyForServedMetrics) {
    const auto nvme = json::parse(testing::fileContents(testing::kHelperFixture));
    standIn_->setBehaviour(testing::printing(
        ataAnswer(36, 0, {{"nvme_smart_health_information_log", nvme["nvme_smart_health_information_log"]}})));
    startExporter();
    // The await peak shows in a scrape that follows a completed request.
    std::string metrics;
    ASSERT_TRUE(testing::eventually([&] {
        testing::writeDirect(volume_->mountPoint() + "/data", 1);
        metrics = scrape();
        return metrics.find("\nvantorix_volume_await_peak_seconds{") != std::string::npos &&
               metrics.find("\nvantorix_smart_growth_since_baseline{") != std::string::npos;
    })) << metrics;
    std::set<std::string> served;
    std::istringstream lines(metrics);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("# TYPE ", 0) == 0) line = line.substr(7);
        if (line.empty() || line[0] == '#') continue;
        served.insert(line.substr(0, line.find_first_of("{ ")));
    }
    const auto isServed = [&](const std::string& name) {
        if (served.count(name) != 0) return true;
        for (const std::string suffix : {"_bucket", "_sum", "_count"}) {
            if (name.size() > suffix.size() && name.ends_with(suffix) &&
                served.count(name.substr(0, name.size() - suffix.size())) != 0)
                return true;
        }
        return false;
    };
    const std::regex metric("vantorix_[a-z0-9_]+");
    const auto check = [&](const std::string& text, const std::string& where) {
        int found = 0;
        for (std::sregex_iterator i(text.begin(), text.end(), metric), end; i != end; ++i, ++found)
            EXPECT_TRUE(isServed(i->str())) << i->str() << " in " << where;
        return found;
    };
    const std::string source = VANTORIX_SOURCE_DIR;
    int asked = 0;
    std::function<void(const json&)> expressions = [&](const json& node) {
        for (const auto& [key, value] : node.items()) {
            if (value.is_string() && (key == "expr" || key == "definition")) asked += check(value, key);
            if (value.is_structured()) expressions(value);
        }
    };
    expressions(json::parse(testing::fileContents(source + "/packaging/grafana/vantorix.json")));
    EXPECT_GT(asked, 30);
    const auto rules = testing::fileContents(source + "/packaging/prometheus/vantorix-rules.yml");
    asked = check(std::regex_replace(rules, std::regex("(^|\n) *#[^\n]*"), "\n"), "vantorix-rules.yml");
    EXPECT_GE(asked, 14);
}

const std::map<std::string, std::optional<std::string>> kEnglish{
    {"LANGUAGE", "en_US"},
    {"LC_ALL", std::nullopt},
    {"VANTORIX_LOG", "off"},
    {"VANTORIX_HELPER_SOCKET", "/nonexistent/vantorix.sock"}};

// Each test writes at most 40 MB at a time on a volume of 96 MiB.
class BenchmarkOnLoopVolume : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = LoopVolume::unavailableReason(); !reason.empty()) GTEST_SKIP() << reason;
        makeVolume();
    }
    void makeVolume() {
        std::string error;
        volume_ = LoopVolume::create("VTX\377BENCH", 96ull << 20, &error);  // a label byte that is not UTF-8
        ASSERT_TRUE(volume_) << error;
    }

    // The names in the volume's root other than lost+found.
    std::set<std::string> rootEntries() const {
        auto names = testing::namesIn(volume_->mountPoint());
        names.erase("lost+found");
        return names;
    }

    std::vector<std::string> benchArguments(const std::vector<std::string>& arguments) const {
        std::vector<std::string> argv{VANTORIX_CLI_PATH, "bench", volume_->mountPoint()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return argv;
    }
    testing::ProcessResult bench(const std::vector<std::string>& arguments) const {
        return testing::runProcess(benchArguments(arguments), kEnglish);
    }
    // A test of 32 MiB whose steps would take two minutes each, once its first file is there; its
    // standard output and error come through one pipe.
    std::unique_ptr<testing::RunningProcess> startedBench(const std::string& mode) {
        std::vector<std::string> args{"--payload-bytes", "33554432", "--seconds", "120", "--random-seconds", "120"};
        if (!mode.empty()) args.push_back(mode);
        auto run = testing::RunningProcess::start(benchArguments(args), kEnglish, /*errorsToOutput=*/true);
        EXPECT_TRUE(testing::eventually(
            [&] {
                run->readLine(10ms);
                return !rootEntries().empty();
            },
            60s));
        return run;
    }

    std::unique_ptr<LoopVolume> volume_;
};

TEST_F(BenchmarkOnLoopVolume, EachModeRunsToItsFiguresAndLeavesOnlyTheReport) {
    const std::uint64_t payload = 40'000'000;
    for (const std::string mode : {"", "--direct", "--profile=deep", "--profile=sustained"}) {
        SCOPED_TRACE(mode);
        std::vector<std::string> arguments{
            "--json", "--payload-bytes", std::to_string(payload), "--seconds", "0.2", "--random-seconds", "0.3"};
        if (!mode.empty()) arguments.push_back(mode);
        const auto run = bench(arguments);
        ASSERT_EQ(run.exitStatus, 0) << run.err;
        const auto result = json::parse(run.out);  // valid JSON, the label's byte shown as U+FFFD
        EXPECT_EQ(result["volume"]["displayName"], "VTX\uFFFDBENCH");
        // The report is the only file left, in the volume's root, and the run says where.
        const fs::path report = result["reportPath"].get<std::string>();
        EXPECT_EQ(report.parent_path(), fs::path(volume_->mountPoint()));
        EXPECT_EQ(rootEntries(), std::set<std::string>{report.filename()});
        EXPECT_NE(run.err.find(report.string()), std::string::npos) << run.err;
        // Buffered, the reads come from the page cache the writes filled, and the report says so.
        const bool cached = mode.empty();
        EXPECT_EQ(testing::fileContents(report).find("<h2>Device Check</h2>") != std::string::npos, cached);
        EXPECT_EQ(run.err.find("Warning: the Sequential Read Phase was served mostly from the page cache") !=
                      std::string::npos,
                  cached)
            << run.err;
        fs::remove(report);
        if (mode == "--profile=deep") {  // on io_uring
            std::vector<std::string> profiles;
            for (const auto& figure : result["queueDepth"]) {
                profiles.push_back(figure["profile"]);
                for (const char* key : {"readBytesPerSecond", "readIOPS", "writeBytesPerSecond", "writeIOPS"}) {
                    EXPECT_GT(figure[key].get<double>(), 0) << figure.dump();
                }
            }
            EXPECT_EQ(profiles, (std::vector<std::string>{"SEQ1M Q8T1", "SEQ1M Q1T1", "RND4K Q32T1", "RND4K Q1T1"}));
            continue;
        }
        if (mode == "--profile=sustained") {  // whole 1 MiB blocks, the last step a point too; no reads
            const auto& sustained = result["sustained"];
            EXPECT_EQ(sustained["bytesWritten"], payload / 1'048'576 * 1'048'576);
            EXPECT_EQ(sustained["points"].back()["bytesWritten"], sustained["bytesWritten"]);
            EXPECT_EQ(result["readThroughput"], 0);
            continue;
        }
        std::vector<std::string> phases;
        for (const auto& phase : result["phases"]) {
            phases.push_back(phase["phase"]);
            // Bypassing the cache, the device sees what each phase moved.
            const double moved = phase["bytesMoved"].get<double>();
            if (mode == "--direct") {
                EXPECT_NEAR(phase["deviceBytes"].get<double>(), moved, moved * 0.01) << phase.dump();
                EXPECT_FALSE(phase["servedFromPageCache"].get<bool>());
            }
        }
        EXPECT_EQ(phases, (std::vector<std::string>{"randomWrite", "randomRead", "sequentialWrite", "sequentialRead"}));
        EXPECT_EQ(result["mode"]["bypassCache"], mode == "--direct");
        EXPECT_EQ(result["actualByteCount"], mode == "--direct" ? payload / 4096 * 4096 : payload);
        EXPECT_GT(result["randomOperationCount"].get<std::int64_t>(), 0);
        EXPECT_GT(result["writeThroughput"].get<double>(), 0);
        EXPECT_GT(result["readThroughput"].get<double>(), 0);
        // The sequential write was flushed, so all of it reached the loop device.
        EXPECT_EQ(result["phases"][2]["bytesMoved"], result["actualByteCount"]);
        EXPECT_GE(result["phases"][2]["deviceBytes"], result["actualByteCount"]);
    }
}

TEST_F(BenchmarkOnLoopVolume, CommandFailuresNameTheirCauseAndLeaveNothing) {
    struct Case {
        const char *arrange, *payload, *message;  // arrange: a shell command, "{0}" the volume's folder
    };
    const Case cases[] = {
        {"fallocate -l $(( $(stat -f -c '%a * %S' {0}) - 1000000 )) {0}/filler", "20000000",
         "Not enough free space to run the performance test. The test needs 20 MB, but only "},
        {"i=0; while : > {0}/$i 2>/dev/null; do i=$((i + 1)); done", "1000000", "No space left on device.\n"},
        {"mount -o remount,ro {0}", "1000000", "Failed to create the temporary test file. Read-only file system.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arrange);
        makeVolume();
        testing::runShell(fmt::format(fmt::runtime(c.arrange), volume_->mountPoint()));
        const auto before = rootEntries();
        const auto run = bench({"--payload-bytes", c.payload, "--random-seconds", "0.1"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_EQ(rootEntries(), before);
    }
}

// Unmounted lazily, a volume keeps working for the descriptors open on it while its path leads to
// the folder underneath: the test notices, removes its file through its descriptor and writes
// nothing underneath.
TEST_F(BenchmarkOnLoopVolume, AVolumeUnmountedDuringTheTestFailsItAndNothingLandsUnderneath) {
    const auto run = startedBench("");
    ASSERT_EQ(testing::runShell("umount -l " + volume_->mountPoint()).exitStatus, 0);
    std::string output;
    while (const auto line = run->readLine(60s)) output += *line + "\n";
    EXPECT_EQ(run->waitForExit(60s), 1);
    EXPECT_NE(output.find("The volume was unmounted or removed; the test cannot go on."), std::string::npos) << output;
    EXPECT_TRUE(fs::is_empty(volume_->mountPoint()));
    // Mounted again, the volume holds nothing either.
    ASSERT_EQ(testing::runShell("mount " + volume_->device() + " " + volume_->mountPoint()).exitStatus, 0);
    EXPECT_TRUE(rootEntries().empty());
}

// Every signal a session sends, and a reader that goes away, stop a running performance test of
// any mode the way Ctrl-C does: the test files are removed before the program ends with 128 + the
// signal.
TEST_F(BenchmarkOnLoopVolume, EverySignalStopsTheCommandAndRemovesItsFiles) {
    const std::pair<int, const char*> cases[] = {{SIGHUP, "--direct"},
                                                 {SIGQUIT, "--profile=deep"},
                                                 {SIGTERM, ""},
                                                 {SIGINT, "--profile=deep"},
                                                 {SIGPIPE, "--direct"}};
    for (const auto& [signal, mode] : cases) {
        SCOPED_TRACE(strsignal(signal));
        const auto run = startedBench(mode);
        // Sent twice at once, as `timeout` and service managers do (to the process and to its group).
        if (signal == SIGPIPE) {
            run->closeOutput();
        } else {
            run->signal(signal);
            run->signal(signal);
        }
        EXPECT_EQ(run->waitForExit(60s), 128 + signal);
        EXPECT_EQ(rootEntries(), std::set<std::string>{});
    }
}

TEST_F(BenchmarkOnLoopVolume, AFileSystemInMemoryRefusesToBypassTheCache) {
    const std::string folder = volume_->mountPoint() + "/memory";
    fs::create_directory(folder);
    ASSERT_EQ(testing::runShell("mount -t tmpfs -o size=64m tmpfs " + folder).exitStatus, 0);
    for (const char* mode : {"--direct", "--profile=deep"}) {
        const auto run = testing::runProcess(
            {VANTORIX_CLI_PATH, "bench", folder, "--payload-bytes", "8388608", "--seconds", "0.1", mode}, kEnglish);
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_NE(run.err.find("so a cache-bypass test cannot run on it."), std::string::npos) << run.err;
        EXPECT_TRUE(fs::is_empty(folder));
    }
    EXPECT_EQ(testing::runShell("umount " + folder).exitStatus, 0);
}

}  // namespace
}  // namespace vantorix
