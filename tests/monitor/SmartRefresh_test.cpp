#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "FakeVolumes.h"
#include "monitor/SmartRefresh.h"
#include "support/ManualMainExecutor.h"
#include "support/ScriptedBlockDevices.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using ::testing::Each;
using ::testing::ElementsAreArray;
using Round = SmartRefresh::Round;
using Outcome = SMARTInfoProvider::Outcome;
using Clock = std::chrono::steady_clock;

DiskSMARTInfo info(const std::string& status) {
    return DiskSMARTInfo{status, true, {DiskSMARTInfo::Detail{Uuid::make(), "smart_status.passed", "Passed", "Yes"}}, "smartctl"};
}
Outcome outcome(std::optional<DiskSMARTInfo> info, bool asleep = false) {
    return Outcome{std::move(info), asleep, {}, {}};
}

// What the test's fetch answers: one entry of the script per call (the last one repeats), after
// `delay` or when cancelled; and when each call started and ended.
struct ScriptedFetch {
    std::mutex mutex;
    std::vector<Outcome> script{Outcome{}};
    Clock::duration delay{0};
    std::vector<std::pair<Clock::time_point, Clock::time_point>> times;
};

class SmartRefreshTest : public ::testing::Test {
protected:
    void SetUp() override {
        monitor_ = DiskIOMonitor::create({std::make_shared<testing::ScriptedBlockDevices>(), std::make_shared<AnyPathOnFakeDisk>(), main_});
        const auto fetch = [f = fetch_](const std::string&, const CancellationToken& token) {
            std::unique_lock lock(f->mutex);
            const std::size_t call = f->times.size();
            f->times.emplace_back(Clock::now(), Clock::time_point{});
            const auto delay = f->delay;
            lock.unlock();
            token.sleepFor(delay);
            lock.lock();
            f->times[call].second = Clock::now();
            return f->script[std::min(call + 1, f->script.size()) - 1];
        };
        refresh_ = SmartRefresh::create(monitor_, main_, fetch, 20ms);
        refresh_->setRoundObserver(
            [this](const std::string& name, Round round, const Outcome&) { rounds_.emplace_back(name, round); });
        monitor_->setSelectionFollower(refresh_);
    }
    // A fetch that was never cancelled keeps its task running.
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
    void script(std::vector<Outcome> outcomes, Clock::duration delay = 0ms) {
        std::lock_guard lock(fetch_->mutex);
        fetch_->script = std::move(outcomes);
        fetch_->delay = delay;
    }
    std::size_t calls() {
        std::lock_guard lock(fetch_->mutex);
        return fetch_->times.size();
    }
    bool runUntil(const std::function<bool()>& done) { return main_->runUntil(done, 10s); }
    bool runUntilRounds(std::size_t count) { return runUntil([&] { return rounds_.size() >= count; }); }

    std::shared_ptr<ManualMainExecutor> main_ = std::make_shared<ManualMainExecutor>();
    std::shared_ptr<ScriptedFetch> fetch_ = std::make_shared<ScriptedFetch>();
    std::shared_ptr<DiskIOMonitor> monitor_;
    std::shared_ptr<SmartRefresh> refresh_;
    std::vector<std::pair<std::string, Round>> rounds_;
};

// A round starts one interval after the previous one ended.
TEST_F(SmartRefreshTest, RoundsPublishOnlyWhatDiffersFieldByField) {
    const DiskSMARTInfo passed = info("PASSED");
    DiskSMARTInfo reinterpreted = passed;  // the same output read again: fresh row ids
    reinterpreted.details[0].id = Uuid::make();
    script({outcome(passed), outcome(passed), outcome(reinterpreted), outcome({}), outcome({}), outcome(passed),
                 outcome(std::nullopt, true)},
                5ms);
    const std::vector<Round> expected{Round::published, Round::identical, Round::published, Round::published,
                                      Round::identical, Round::published, Round::kept};
    select("fake0");
    ASSERT_TRUE(runUntilRounds(expected.size()));
    std::vector<Round> seen;
    for (std::size_t i = 0; i < expected.size(); ++i) seen.push_back(rounds_[i].second);
    EXPECT_THAT(seen, ElementsAreArray(expected));
    std::lock_guard lock(fetch_->mutex);
    const auto& times = fetch_->times;
    for (std::size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i].first - times[i - 1].second, 20ms) << i;
    EXPECT_EQ(monitor_->state().selectedVolume->smartInfo, passed);  // kept while the drive sleeps
}

TEST_F(SmartRefreshTest, ReselectionCancelsTheOldTaskAndStaleResultsAreDiscarded) {
    script({Outcome{}}, 1h);
    select("fake0");
    ASSERT_TRUE(runUntil([&] { return calls() > 0; }));
    script({outcome(info("PASSED"))});
    select("fake1");
    ASSERT_TRUE(runUntilRounds(2));
    for (const auto& [name, round] : rounds_) EXPECT_EQ(name, "fake1");

    // A task for a device that is no longer selected: its result is dropped.
    DiskVolumeDescriptor old;
    old.deviceName = "fake0";
    refresh_->start(old);
    ASSERT_TRUE(runUntil([&] { return rounds_.back().first == "fake0"; }));
    EXPECT_EQ(rounds_.back().second, Round::discarded);
    EXPECT_EQ(selected(), "fake1");
}

TEST_F(SmartRefreshTest, PausedRoundsFetchNothingAndKeepTheData) {
    script({outcome(info("PASSED"))});
    select("fake0");
    ASSERT_TRUE(runUntilRounds(1));
    refresh_->setPaused(true);
    ASSERT_TRUE(runUntil([&] { return rounds_.back().second == Round::paused; }));
    const std::size_t fetched = calls();
    ASSERT_TRUE(runUntilRounds(rounds_.size() + 3));
    EXPECT_EQ(calls(), fetched);
    const std::vector<std::pair<std::string, Round>> last(rounds_.end() - 3, rounds_.end());
    EXPECT_THAT(last, Each(std::pair<std::string, Round>("fake0", Round::paused)));
    EXPECT_TRUE(monitor_->state().selectedVolume->smartInfo.has_value());
}

}  // namespace
}  // namespace vantorix
