#include "monitor/SmartRefresh.h"

#include "concurrency/MainThreadCall.h"
#include "log/Log.h"

namespace vantorix {
namespace {

const log::Logger& logger() {
    static const log::Logger& instance = log::logger("DiskIOMonitor");
    return instance;
}

}  // namespace

// What a task needs; shared by the task and nobody else, so a task never touches the refresh
// object, which may be gone while the task still finishes.
struct SmartRefresh::Context {
    std::weak_ptr<DiskIOMonitor> monitor;
    std::weak_ptr<SmartRefresh> refresh;
    std::shared_ptr<MainExecutor> mainExecutor;
    Fetch fetch;
    std::chrono::nanoseconds interval;
    std::shared_ptr<std::atomic<bool>> paused;
    std::string deviceName;
};

std::shared_ptr<SmartRefresh> SmartRefresh::create(std::weak_ptr<DiskIOMonitor> monitor,
                                                   std::shared_ptr<MainExecutor> mainExecutor, Fetch fetch,
                                                   std::chrono::nanoseconds interval) {
    return std::shared_ptr<SmartRefresh>(
        new SmartRefresh(std::move(monitor), std::move(mainExecutor), std::move(fetch), interval));
}

SmartRefresh::SmartRefresh(std::weak_ptr<DiskIOMonitor> monitor, std::shared_ptr<MainExecutor> mainExecutor,
                           Fetch fetch, std::chrono::nanoseconds interval)
    : monitor_(std::move(monitor)),
      mainExecutor_(std::move(mainExecutor)),
      fetch_(std::move(fetch)),
      smartRefreshIntervalNanoseconds_(interval) {}

SmartRefresh::~SmartRefresh() { cancel(); }

void SmartRefresh::start(const DiskVolumeDescriptor& descriptor) {
    auto context = std::make_shared<Context>(Context{monitor_, weak_from_this(), mainExecutor_, fetch_,
                                                     smartRefreshIntervalNanoseconds_, paused_, descriptor.deviceName});
    std::lock_guard lock(tasksMutex_);
    if (smartRefreshTask_.valid()) {
        smartRefreshTask_.cancel();
        cancelledTasks_.push_back(std::move(smartRefreshTask_));
    }
    std::erase_if(cancelledTasks_, [](const Task& task) { return task.isFinished(); });
    smartRefreshTask_ = Task("com.vantorix.monitor.smartRefresh", QualityOfService::utility,
                             [context](const CancellationToken& token) { run(context, token); });
}

void SmartRefresh::cancel() {
    std::lock_guard lock(tasksMutex_);
    if (smartRefreshTask_.valid()) smartRefreshTask_.cancel();
}

bool SmartRefresh::isFinished() {
    std::lock_guard lock(tasksMutex_);
    std::erase_if(cancelledTasks_, [](const Task& task) { return task.isFinished(); });
    return cancelledTasks_.empty() && (!smartRefreshTask_.valid() || smartRefreshTask_.isFinished());
}

void SmartRefresh::run(const std::shared_ptr<Context>& context, const CancellationToken& token) {
    for (;;) {
        if (token.isCancelled() || context->monitor.expired()) return;
        refreshOnce(context, token);
        if (!token.sleepFor(context->interval)) return;
    }
}

void SmartRefresh::refreshOnce(const std::shared_ptr<Context>& context, const CancellationToken& token) {
    if (token.isCancelled()) return;
    const std::string& deviceName = context->deviceName;
    SMARTInfoProvider::Outcome fetched;
    const bool paused = context->paused->load();
    if (paused) {
        logger().debug("SMART refresh paused for device {} while a performance test runs on it", deviceName);
    } else {
        logger().debug("Initiating SMART refresh for device {}", deviceName);
        // What every round says again while nothing changes (a drive without SMART, a helper
        // that is not enabled) reaches the log once, not once a second.
        const log::RoundScope round(
            fmt::format("SmartRefresh {} {}", deviceName, static_cast<const void*>(context.get())));
        fetched = context->fetch(deviceName, token);
        if (token.isCancelled()) {
            logger().debug("SMART refresh cancelled before publishing for device {}", deviceName);
            return;
        }
    }
    const auto round = callOnMainThread(*context->mainExecutor, [&]() -> Round {
        Round outcome = Round::discarded;
        if (const auto monitor = context->monitor.lock()) {
            const auto& selected = monitor->state().selectedVolume;
            if (!selected || selected->deviceName != deviceName) {
                outcome = Round::discarded;
            } else if (paused) {
                outcome = Round::paused;
            } else if (fetched.driveAsleep) {
                outcome = Round::kept;
            } else {
                outcome = monitor->replaceSmartInfo(fetched.info) ? Round::published : Round::identical;
            }
        }
        if (const auto refresh = context->refresh.lock(); refresh && refresh->observer_) {
            refresh->observer_(deviceName, outcome, fetched);
        }
        return outcome;
    });
    if (!round) return;  // the main thread is gone: the program ends
    if (token.isCancelled()) {
        logger().debug("SMART refresh cancelled after publishing decision for device {}", deviceName);
        return;
    }
    switch (*round) {
        case Round::published:
            // Every interpretation carries fresh row ids, so data are applied with every round: debug.
            if (fetched.info) logger().debug("SMART refresh applied new data for device {}", deviceName);
            else logger().notice("SMART refresh cleared data for device {}", deviceName);
            break;
        case Round::identical:
            logger().debug("SMART refresh produced identical payload for device {}; skipping publish.", deviceName);
            break;
        case Round::discarded:
            logger().debug("SMART refresh result discarded because selection changed for device {}", deviceName);
            break;
        case Round::kept:
            logger().debug("SMART refresh kept the current data for device {}; the drive is in standby", deviceName);
            break;
        case Round::paused: break;
    }
}

}  // namespace vantorix
