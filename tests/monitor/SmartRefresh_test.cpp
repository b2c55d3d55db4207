#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "FakeVolumes.h"
#include "log/Log.h"
#include "monitor/SmartRefresh.h"
#include "support/ManualMainExecutor.h"
#include "support/ScriptedBlockDevices.h"
#include "support/ScopedEnvironment.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAreArray;
using Round = SmartRefresh::Round;
using Clock = std::chrono::steady_clock;

DiskSMARTInfo info(const std::string& status) {
    return DiskSMARTInfo{status, true, {DiskSMARTInfo::Detail{Uuid::make(), "smart_status.passed", "Passed", "Yes"}}, "smartctl"};
}

// The fetch of a test: answers from a script, one entry per call (the last one repeats), after
// `delay`; records which device each call was for and when it ran.
class ScriptedFetch {
public:
    struct Call {
        std::string deviceName;
        Clock::time_point start, end;
    };
    void set(std::vector<SMARTInfoProvider::Outcome> script, std::chrono::milliseconds delay = 0ms,
             bool blockUntilCancelled = false) {
        std::lock_guard lock(mutex_);
        script_ = std::move(script);
        delay_ = delay;
        block_ = blockUntilCancelled;
        answered_ = 0;
    }

    SMARTInfoProvider::Outcome operator()(const std::string& deviceName, const CancellationToken& token) {
        const auto start = Clock::now();
        std::unique_lock lock(mutex_);
        const bool block = block_;
        const auto delay = delay_;
        lock.unlock();
        if (block) {
            while (!token.isCancelled()) std::this_thread::sleep_for(1ms);
        } else {
            token.sleepFor(delay);
        }
        lock.lock();
        calls_.push_back({deviceName, start, Clock::now()});
        ++answered_;
        return script_[std::min(answered_, script_.size()) - 1];
    }
    std::vector<Call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<SMARTInfoProvider::Outcome> script_{SMARTInfoProvider::Outcome{}};
    std::chrono::milliseconds delay_{0};
    bool block_ = false;
    std::size_t answered_ = 0;
    std::vector<Call> calls_;
};

class SmartRefreshTest : public ::testing::Test {
protected:
    void SetUp() override {
        monitor_ = DiskIOMonitor::create({std::make_shared<testing::ScriptedBlockDevices>(), std::make_shared<AnyPathOnFakeDisk>(), main_});
        refresh_ = SmartRefresh::create(
            monitor_, main_, [this](const std::string& name, const CancellationToken& token) { return (*fetch_)(name, token); },
            20ms);
        refresh_->setRoundObserver(
            [this](const std::string& name, Round round, const SMARTInfoProvider::Outcome&) { rounds_.emplace_back(name, round); });
        monitor_->setSelectionFollower(refresh_);
    }
    void TearDown() override {
        monitor_.reset();
        ASSERT_TRUE(main_->runUntil([&] { return refresh_->isFinished(); }, 10s));
    }
    void select(const std::string& device) {
        monitor_->selectVolume("/volumes/" + device);
        ASSERT_TRUE(main_->runUntil([&] { return selected() == device; }, 10s));
    }
    std::string selected() const {
        const auto& volume = monitor_->state().selectedVolume;
        return volume ? volume->deviceName : "";
    }
    bool runUntilRounds(std::size_t count) { return main_->runUntil([&] { return rounds_.size() >= count; }, 10s); }
    std::vector<std::string> lines() const { return capture_.messages("DiskIOMonitor"); }
    // The task logs a round's outcome after the main thread decided it.
    bool waitForLine(const std::string& line) {
        return main_->runUntil(
            [&] {
                const auto all = lines();
                return std::find(all.begin(), all.end(), line) != all.end();
            },
            10s);
    }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<ScriptedFetch> fetch_ = std::make_shared<ScriptedFetch>();
    std::shared_ptr<DiskIOMonitor> monitor_;
    std::shared_ptr<SmartRefresh> refresh_;
    std::vector<std::pair<std::string, Round>> rounds_;
    log::Capture capture_;
};

TEST_F(SmartRefreshTest, FirstRoundAtOnceThenOneIntervalAfterThePreviousEnded) {
    fetch_->set({SMARTInfoProvider::Outcome{}}, 30ms);
    select("fake0");
    ASSERT_TRUE(runUntilRounds(3));
    const auto calls = fetch_->calls();
    for (std::size_t i = 1; i < calls.size(); ++i) EXPECT_GE(calls[i].start - calls[i - 1].end, 20ms) << i;
    EXPECT_THAT(lines(), Contains("Initiating SMART refresh for device fake0"));
}

TEST_F(SmartRefreshTest, PublishesOnlyWhatDiffersFieldByField) {
    const DiskSMARTInfo passed = info("PASSED");
    DiskSMARTInfo reinterpreted = passed;  // the same output read again: fresh row ids
    reinterpreted.details[0].id = Uuid::make();
    const auto outcome = [](std::optional<DiskSMARTInfo> info, bool asleep = false) {
        return SMARTInfoProvider::Outcome{std::move(info), asleep, {}, {}};
    };
    fetch_->set({outcome(passed), outcome(passed), outcome(reinterpreted), outcome({}), outcome({}), outcome(passed),
                 outcome(std::nullopt, true)});
    const std::vector<Round> expected{Round::published, Round::identical, Round::published, Round::published,
                                      Round::identical, Round::published, Round::kept};
    select("fake0");
    ASSERT_TRUE(runUntilRounds(expected.size()));
    std::vector<Round> seen;
    for (std::size_t i = 0; i < expected.size(); ++i) seen.push_back(rounds_[i].second);
    EXPECT_THAT(seen, ElementsAreArray(expected));
    EXPECT_EQ(monitor_->state().selectedVolume->smartInfo, passed);  // kept while the drive sleeps
    for (const std::string line : {"SMART refresh applied new data for device fake0",
                                   "SMART refresh cleared data for device fake0",
                                   "SMART refresh produced identical payload for device fake0; skipping publish.",
                                   "SMART refresh kept the current data for device fake0; the drive is in standby"}) {
        EXPECT_TRUE(waitForLine(line)) << line;
    }
}

TEST_F(SmartRefreshTest, ReselectionCancelsTheOldTaskAndStaleResultsAreDiscarded) {
    fetch_->set({SMARTInfoProvider::Outcome{}}, 0ms, true);
    select("fake0");
    ASSERT_TRUE(main_->runUntil([&] { return !lines().empty(); }, 10s));
    fetch_->set({SMARTInfoProvider::Outcome{info("PASSED"), false, {}, {}}});
    select("fake1");
    ASSERT_TRUE(runUntilRounds(2));
    EXPECT_TRUE(waitForLine("SMART refresh cancelled before publishing for device fake0"));
    for (const auto& [name, round] : rounds_) EXPECT_EQ(name, "fake1");

    // A task for a device that is no longer selected: its result is dropped.
    DiskVolumeDescriptor old;
    old.deviceName = "fake0";
    refresh_->start(old);
    ASSERT_TRUE(main_->runUntil([&] { return rounds_.back().first == "fake0"; }, 10s));
    EXPECT_EQ(rounds_.back().second, Round::discarded);
    EXPECT_TRUE(waitForLine("SMART refresh result discarded because selection changed for device fake0"));
    EXPECT_EQ(selected(), "fake1");
}

TEST_F(SmartRefreshTest, PausedRoundsFetchNothingAndKeepTheData) {
    fetch_->set({SMARTInfoProvider::Outcome{info("PASSED"), false, {}, {}}});
    select("fake0");
    ASSERT_TRUE(runUntilRounds(1));
    refresh_->setPaused(true);
    main_->runUntil([] { return false; }, 100ms);
    const std::size_t fetched = fetch_->calls().size();
    const std::size_t before = rounds_.size();
    ASSERT_TRUE(runUntilRounds(before + 3));
    EXPECT_LE(fetch_->calls().size(), fetched + 1);  // at most the one that was running
    const std::vector<std::pair<std::string, Round>> last(rounds_.end() - 2, rounds_.end());
    EXPECT_THAT(last, Each(std::pair<std::string, Round>("fake0", Round::paused)));
    EXPECT_TRUE(monitor_->state().selectedVolume->smartInfo.has_value());
}

}  // namespace
}  // namespace vantorix
