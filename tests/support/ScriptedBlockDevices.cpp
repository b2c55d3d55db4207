#include "support/ScriptedBlockDevices.h"

#include <cerrno>

namespace vantorix::testing {
namespace {

BlockDeviceError gone(std::string_view name) {
    return {BlockDeviceError::Kind::notFound, "/sys/class/block/" + std::string(name) + "/stat", ENODEV};
}

class ScriptedFile final : public BlockStatisticsFile {
public:
    ScriptedFile(std::string name, ScriptedBlockDevices::Reader read, std::shared_ptr<std::atomic<bool>> present)
        : name_(std::move(name)), read_(std::move(read)), present_(std::move(present)) {}
    Result<BlockStatistics, BlockDeviceError> read() override {
        if (!present_->load()) return Failure{gone(name_)};
        return read_();
    }

private:
    std::string name_;
    ScriptedBlockDevices::Reader read_;
    std::shared_ptr<std::atomic<bool>> present_;
};

}  // namespace

void ScriptedBlockDevices::add(const std::string& name, Reader read, BlockAttachment attachment) {
    BlockDevice device;
    device.name = name;
    device.attachment = std::move(attachment);
    std::lock_guard lock(mutex_);
    devices_[name] = Entry{std::move(read), std::move(device), std::make_shared<std::atomic<bool>>(true), 0};
}

void ScriptedBlockDevices::add(BlockDevice device) {
    std::lock_guard lock(mutex_);
    const std::string name = device.name;
    devices_[name] = Entry{[] { return BlockStatistics{}; }, std::move(device), std::make_shared<std::atomic<bool>>(true), 0};
}

void ScriptedBlockDevices::remove(const std::string& name) {
    std::lock_guard lock(mutex_);
    const auto found = devices_.find(name);
    if (found == devices_.end()) return;
    found->second.present->store(false);
    devices_.erase(found);
}

int ScriptedBlockDevices::opens(const std::string& name) const {
    std::lock_guard lock(mutex_);
    const auto found = devices_.find(name);
    return found == devices_.end() ? 0 : found->second.opens;
}

Result<BlockDevice, BlockDeviceError> ScriptedBlockDevices::device(std::string_view name) {
    std::lock_guard lock(mutex_);
    const auto found = devices_.find(name);
    if (found == devices_.end()) return Failure{gone(name)};
    return found->second.device;
}

Result<std::unique_ptr<BlockStatisticsFile>, BlockDeviceError> ScriptedBlockDevices::openStatistics(std::string_view name) {
    std::lock_guard lock(mutex_);
    const auto found = devices_.find(name);
    if (found == devices_.end()) return Failure{gone(name)};
    ++found->second.opens;
    return std::unique_ptr<BlockStatisticsFile>(
        std::make_unique<ScriptedFile>(std::string(name), found->second.read, found->second.present));
}

}  // namespace vantorix::testing
