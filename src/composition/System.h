#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "benchmark/DiskPerformanceTester.h"
#include "concurrency/MainExecutor.h"
#include "monitor/DiskIOMonitor.h"
#include "platform/BlockDevice.h"
#include "platform/FileSystem.h"
#include "platform/HttpClient.h"
#include "platform/VolumeInfoSource.h"

namespace vantorix {

// This machine's implementations of the interfaces the logic is written against, made in this one
// place for both front ends, and the long-lived objects they build over them. A front end makes one
// System and keeps it for the life of the program; each part may be replaced before use (tests).
struct System {
    std::shared_ptr<BlockDevices> devices;
    std::shared_ptr<VolumeInfoSource> volumes;
    std::shared_ptr<FileSystem> files;
    std::shared_ptr<HttpClient> http;
    // Where a download goes: the XDG Downloads folder, else ~/Downloads, else the temporary folder.
    std::function<std::string()> downloadsFolder;
    // Every mounted file system on a block device, once each (the exporter's volumes).
    std::function<std::vector<std::string>()> blockDeviceMountPoints;

    // sysfs, /proc/self/mountinfo, POSIX files, libcurl and the XDG user folders.
    static System thisMachine();

    std::shared_ptr<DiskIOMonitor> makeMonitor(
        std::shared_ptr<MainExecutor> mainExecutor,
        std::chrono::nanoseconds deliveryInterval = DiskIOMonitor::aggregationInterval) const;
    // With a temperature probe (SmartPipeline::temperatureProbe), the sustained-write test follows
    // the drive's temperature; with a history, each finished run is recorded for its drive and
    // compared with the previous run of its kind.
    std::shared_ptr<DiskPerformanceTester> makeTester(
        std::shared_ptr<MainExecutor> mainExecutor, DiskPerformanceTester::Parameters parameters = {},
        std::shared_ptr<DriveTemperatureProbe> temperatureProbe = nullptr,
        std::optional<DiskPerformanceTester::Dependencies::History> history = std::nullopt) const;
};

}  // namespace vantorix
