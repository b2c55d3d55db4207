#include "composition/System.h"

#include <fstream>
#include <sstream>

#include "platform/linux/CurlHttpClient.h"
#include "platform/linux/LinuxVolumeInfoSource.h"
#include "platform/linux/MountInfo.h"
#include "platform/linux/PosixFileSystem.h"
#include "platform/linux/SysfsBlockDevices.h"
#include "platform/linux/XdgFolders.h"

namespace vantorix {

System System::thisMachine() {
    System system;
    system.devices = std::make_shared<SysfsBlockDevices>();
    system.volumes = std::make_shared<LinuxVolumeInfoSource>();
    system.files = std::make_shared<PosixFileSystem>();
    system.http = std::make_shared<CurlHttpClient>();
    system.downloadsFolder = [] { return xdg::downloadsFolder(); };
    system.blockDeviceMountPoints = [] {
        std::ifstream file("/proc/self/mountinfo");
        std::stringstream text;
        text << file.rdbuf();
        return vantorix::blockDeviceMountPoints(parseMountInfo(text.str()));
    };
    return system;
}

std::shared_ptr<DiskIOMonitor> System::makeMonitor(std::shared_ptr<MainExecutor> mainExecutor,
                                                   std::chrono::nanoseconds deliveryInterval) const {
    return DiskIOMonitor::create({devices, volumes, std::move(mainExecutor), deliveryInterval});
}

std::shared_ptr<DiskPerformanceTester> System::makeTester(
    std::shared_ptr<MainExecutor> mainExecutor, DiskPerformanceTester::Parameters parameters,
    std::shared_ptr<DriveTemperatureProbe> temperatureProbe,
    std::optional<DiskPerformanceTester::Dependencies::History> history) const {
    return DiskPerformanceTester::create(
        {std::move(mainExecutor), files, devices, std::move(temperatureProbe), std::move(history)}, parameters);
}

}  // namespace vantorix
