#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/BlockDevice.h"

namespace vantorix::testing {

// Block devices a test makes up. Each device's counters come from a function the test gives, called
// on every reading, so a test decides exactly what every sample sees.
class ScriptedBlockDevices final : public BlockDevices {
public:
    using Reader = std::function<BlockStatistics()>;

    void add(const std::string& name, Reader read, BlockAttachment attachment = {});
    // A device described in full (its whole disk, members, controller); its counters stay 0.
    void add(BlockDevice device);
    // The device goes: files already open fail their next reading as a removed device's do, and it
    // can no longer be opened.
    void remove(const std::string& name);
    // How often the device's statistics file was opened.
    int opens(const std::string& name) const;

    Result<BlockDevice, BlockDeviceError> device(std::string_view name) override;
    Result<std::unique_ptr<BlockStatisticsFile>, BlockDeviceError> openStatistics(std::string_view name) override;

private:
    struct Entry {
        Reader read;
        BlockDevice device;
        std::shared_ptr<std::atomic<bool>> present;
        int opens = 0;
    };
    mutable std::mutex mutex_;
    std::map<std::string, Entry, std::less<>> devices_;
};

}  // namespace vantorix::testing
