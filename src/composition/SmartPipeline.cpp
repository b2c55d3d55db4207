#include "composition/SmartPipeline.h"

#include "platform/linux/SysfsBlockDeviceTopology.h"
#include "platform/linux/UnixSocketHelperConnection.h"

namespace vantorix {

SmartPipeline SmartPipeline::system(std::shared_ptr<MainExecutor> mainExecutor, RegistrationPolicy policy) {
    return over(makeSystemServiceManager(policy), std::move(mainExecutor));
}

SmartPipeline SmartPipeline::over(std::shared_ptr<ServiceManager> serviceManager, std::shared_ptr<MainExecutor> mainExecutor) {
    SmartPipeline pipeline;
    pipeline.serviceManager = serviceManager;
    PrivilegedHelperManager::Dependencies dependencies;
    dependencies.serviceManager = serviceManager;
    dependencies.mainExecutor = std::move(mainExecutor);
    pipeline.manager = PrivilegedHelperManager::create(std::move(dependencies));
    // The socket is asked for at each connection: a helper that the program starts itself gets its
    // socket only when it starts.
    auto connector = std::make_shared<UnixSocketHelperConnector>([serviceManager] { return serviceManager->socketPath(); });
    pipeline.client = SmartctlHelperClient::create({connector, pipeline.manager, SmartctlHelperClient::kDefaultReplyTimeout});
    pipeline.provider = std::make_shared<SMARTInfoProvider>(pipeline.client, std::make_shared<SysfsBlockDeviceTopology>());
    return pipeline;
}

std::shared_ptr<SmartRefresh> SmartPipeline::attachRefresh(const std::shared_ptr<DiskIOMonitor>& monitor,
                                                           std::shared_ptr<MainExecutor> mainExecutor,
                                                           std::chrono::nanoseconds interval) const {
    auto refresh = SmartRefresh::create(
        monitor, std::move(mainExecutor),
        [provider = provider](const std::string& deviceName, const CancellationToken& token) {
            return provider->fetch(deviceName, token);
        },
        interval);
    monitor->setSelectionFollower(refresh);
    return refresh;
}

}  // namespace vantorix
