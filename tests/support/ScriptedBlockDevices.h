#pragma once

#include <atomic>
#include <cerrno>
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

    void add(const std::string& name, Reader read, BlockAttachment attachment = {}) {
        BlockDevice device;
        device.name = name;
        device.attachment = std::move(attachment);
        std::lock_guard lock(mutex_);
        devices_[name] = Entry{std::move(read), std::move(device), std::make_shared<std::atomic<bool>>(true), 0};
    }
    // A device described in full (its whole disk, members, controller); its counters stay 0.
    void add(BlockDevice device) {
        const std::string name = device.name;
        add(name, [] { return BlockStatistics{}; });
        std::lock_guard lock(mutex_);
        devices_[name].device = std::move(device);
    }
    // The device goes: files already open fail their next reading as a removed device's do, and it
    // can no longer be opened.
    void remove(const std::string& name) {
        std::lock_guard lock(mutex_);
        if (const auto found = devices_.find(name); found != devices_.end()) {
            found->second.present->store(false);
            devices_.erase(found);
        }
    }
    // How often the device's statistics file was opened.
    int opens(const std::string& name) const {
        std::lock_guard lock(mutex_);
        const auto found = devices_.find(name);
        return found == devices_.end() ? 0 : found->second.opens;
    }

    Result<BlockDevice, BlockDeviceError> device(std::string_view name) override {
        std::lock_guard lock(mutex_);
        const auto found = devices_.find(name);
        if (found == devices_.end()) return Failure{gone(name)};
        return found->second.device;
    }
    Result<std::unique_ptr<BlockStatisticsFile>, BlockDeviceError> openStatistics(std::string_view name) override {
        std::lock_guard lock(mutex_);
        const auto found = devices_.find(name);
        if (found == devices_.end()) return Failure{gone(name)};
        ++found->second.opens;
        return std::unique_ptr<BlockStatisticsFile>(std::make_unique<File>(std::string(name), found->second));
    }

private:
    static BlockDeviceError gone(std::string_view name) {
        return {BlockDeviceError::Kind::notFound, "/sys/class/block/" + std::string(name) + "/stat", ENODEV};
    }
    struct Entry {
        Reader read;
        BlockDevice device;
        std::shared_ptr<std::atomic<bool>> present;
        int opens = 0;
    };
    // A statistics file: gone once the device is.
    class File final : public BlockStatisticsFile {
    public:
        File(std::string name, const Entry& entry)
            : name_(std::move(name)), read_(entry.read), present_(entry.present) {}
        Result<BlockStatistics, BlockDeviceError> read() override {
            if (!present_->load()) return Failure{gone(name_)};
            return read_();
        }

    private:
        std::string name_;
        Reader read_;
        std::shared_ptr<std::atomic<bool>> present_;
    };
    mutable std::mutex mutex_;
    std::map<std::string, Entry, std::less<>> devices_;
};

}  // namespace vantorix::testing
