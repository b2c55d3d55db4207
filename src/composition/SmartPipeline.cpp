#include "composition/SmartPipeline.h"

#include <sys/stat.h>

#include <cstdlib>

#include "composition/SmartTemperatureProbe.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "platform/linux/UnixSocketHelperConnection.h"

namespace vantorix {

SmartPipeline SmartPipeline::system(std::shared_ptr<MainExecutor> mainExecutor, RegistrationPolicy policy) {
    std::shared_ptr<HelperService> service;
    const char* external = std::getenv(std::string(protocol::kSocketEnvironmentVariable).c_str());
    struct stat info {};
    if (external != nullptr && *external != '\0') {
        service = std::make_shared<ExternalHelperService>(external);
    } else if (::stat("/run/systemd/system", &info) == 0 && S_ISDIR(info.st_mode)) {
        service = std::make_shared<SystemdHelperService>(policy);
    } else {
        service = std::make_shared<StandaloneHelperService>(helperProgramBesideExecutable());
    }
    return over(service, std::move(mainExecutor));
}

SmartPipeline SmartPipeline::over(const std::shared_ptr<HelperService>& helperService,
                                  std::shared_ptr<MainExecutor> mainExecutor) {
    SmartPipeline pipeline;
    pipeline.helperService = helperService;
    PrivilegedHelperManager::Dependencies dependencies;
    dependencies.helperService = helperService;
    dependencies.mainExecutor = std::move(mainExecutor);
    pipeline.manager = PrivilegedHelperManager::create(std::move(dependencies));
    // The socket is asked for at each connection: a helper that the program starts itself gets its
    // socket only when it starts.
    auto connector = std::make_shared<UnixSocketHelperConnector>(
        [helperService] { return helperService->socketPath(); });
    pipeline.client = SmartctlHelperClient::create(
        {connector, pipeline.manager, SmartctlHelperClient::kDefaultReplyTimeout});
    pipeline.provider = std::make_shared<SMARTInfoProvider>(pipeline.client, std::make_shared<SysfsBlockDevices>());
    return pipeline;
}

std::shared_ptr<DriveTemperatureProbe> SmartPipeline::temperatureProbe() const {
    return std::make_shared<SmartTemperatureProbe>(provider);
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
