#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "concurrency/Cancellation.h"
#include "concurrency/MainExecutor.h"
#include "concurrency/Task.h"
#include "monitor/DiskIOMonitor.h"
#include "smart/SMARTInfoProvider.h"

namespace vantorix {

// Keeps the selected volume's SMART data current: while a volume is selected, a task fetches its
// SMART data once a second (one interval after the previous fetch ended) and, when the result
// differs from what the selection carries, the monitor publishes a copy of the selection with the
// new data. It runs whether or not monitoring is active.
class SmartRefresh final : public DiskIOMonitor::SelectionFollower, public std::enable_shared_from_this<SmartRefresh> {
public:
    using Fetch = std::function<SMARTInfoProvider::Outcome(const std::string& deviceName, const CancellationToken&)>;

    static constexpr std::chrono::nanoseconds kDefaultInterval = std::chrono::seconds(1);

    // How one round ended, as the main thread saw it.
    enum class Round {
        published,  // new data (or, when the fetch found none, no data) replaced the selection's
        identical,  // the fetch found what the selection carries
        discarded,  // the selection changed meanwhile
        kept,       // the drive sleeps: the selection keeps the data it has
        paused,     // a performance test runs on the volume: no fetch was made
    };
    using RoundObserver =
        std::function<void(const std::string& deviceName, Round round, const SMARTInfoProvider::Outcome& fetched)>;

    static std::shared_ptr<SmartRefresh> create(std::weak_ptr<DiskIOMonitor> monitor,
                                                std::shared_ptr<MainExecutor> mainExecutor, Fetch fetch,
                                                std::chrono::nanoseconds interval = kDefaultInterval);
    ~SmartRefresh() override;
    SmartRefresh(const SmartRefresh&) = delete;
    SmartRefresh& operator=(const SmartRefresh&) = delete;

    // Cancels the running task and starts one for `descriptor`. Main thread.
    void start(const DiskVolumeDescriptor& descriptor) override;
    // Cancels the running task; it ends at its next check. Any thread.
    void cancel() override;

    // While paused, rounds fetch nothing and the selection keeps its data (a performance test on
    // the volume should measure the disk, not the SMART polling). Any thread.
    void setPaused(bool paused) { paused_->store(paused); }

    // Told on the main thread after every round, with what the round fetched (nothing when paused).
    // Main thread.
    void setRoundObserver(RoundObserver observer) { observer_ = std::move(observer); }

    // True when no task of this refresh runs any more (cancelled tasks included).
    bool isFinished();

    std::chrono::nanoseconds interval() const { return smartRefreshIntervalNanoseconds_; }

private:
    SmartRefresh(std::weak_ptr<DiskIOMonitor> monitor, std::shared_ptr<MainExecutor> mainExecutor, Fetch fetch,
                 std::chrono::nanoseconds interval);

    struct Context;
    static void run(const std::shared_ptr<Context>& context, const CancellationToken& token);
    static void refreshOnce(const std::shared_ptr<Context>& context, const CancellationToken& token);

    std::weak_ptr<DiskIOMonitor> monitor_;
    std::shared_ptr<MainExecutor> mainExecutor_;
    Fetch fetch_;
    std::chrono::nanoseconds smartRefreshIntervalNanoseconds_;
    std::shared_ptr<std::atomic<bool>> paused_ = std::make_shared<std::atomic<bool>>(false);
    RoundObserver observer_;
    std::mutex tasksMutex_;
    Task smartRefreshTask_;
    std::vector<Task> cancelledTasks_;  // kept until they have ended, so isFinished() can tell
};

}  // namespace vantorix
