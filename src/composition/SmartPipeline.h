#pragma once

#include <memory>

#include "benchmark/DriveTemperatureProbe.h"
#include "concurrency/MainExecutor.h"
#include "monitor/DiskIOMonitor.h"
#include "monitor/SmartRefresh.h"
#include "platform/HelperService.h"
#include "platform/linux/HelperServices.h"
#include "smart/PrivilegedHelperManager.h"
#include "smart/SMARTInfoProvider.h"
#include "smart/SmartctlHelperClient.h"

namespace vantorix {

// The SMART fetch of this system, put together once per program: the way of running the helper
// that fits the machine, the helper manager over it, the client that talks to the helper, and the
// provider that tries a volume's device names. Front ends make one and keep it for the life of the
// program.
struct SmartPipeline {
    std::shared_ptr<HelperService> helperService;
    std::shared_ptr<PrivilegedHelperManager> manager;
    std::shared_ptr<SmartctlHelperClient> client;
    std::shared_ptr<SMARTInfoProvider> provider;

    // Over this machine's helper service: external when VANTORIX_HELPER_SOCKET is set, systemd when
    // it runs (/run/systemd/system exists), standalone otherwise.
    static SmartPipeline system(std::shared_ptr<MainExecutor> mainExecutor, RegistrationPolicy policy);
    // The same over a given helper service (tests, and front ends that choose their own).
    static SmartPipeline over(const std::shared_ptr<HelperService>& helperService,
                              std::shared_ptr<MainExecutor> mainExecutor);

    // The drive's temperature through this pipeline, for the sustained-write test.
    std::shared_ptr<DriveTemperatureProbe> temperatureProbe() const;

    // A refresh for `monitor` that fetches through this pipeline; installed as its selection follower.
    std::shared_ptr<SmartRefresh> attachRefresh(
        const std::shared_ptr<DiskIOMonitor>& monitor, std::shared_ptr<MainExecutor> mainExecutor,
        std::chrono::nanoseconds interval = SmartRefresh::kDefaultInterval) const;
};

}  // namespace vantorix
