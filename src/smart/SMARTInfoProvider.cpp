#include "smart/SMARTInfoProvider.h"

#include <algorithm>

#include "log/Log.h"
#include "smart/SmartValueText.h"
#include "smart/SmartmontoolsBridge.h"
#include "text/Trim.h"

namespace vantorix {
namespace {

const log::Logger& providerLogger() {
    static const log::Logger& instance = log::logger("SMARTInfoProvider");
    return instance;
}

const log::Logger& bridgeLogger() { return log::logger(smart::kBridgeLogCategory); }

std::string listText(const std::vector<std::string>& names) {
    std::string text = "[";
    for (const auto& name : names) {
        if (text.size() > 1) text += ", ";
        text += "\"" + name + "\"";
    }
    return text + "]";
}

// smartctl's exit status bit 1: the device could not be opened, or, with "-n standby", was not
// opened because it sleeps.
constexpr std::int32_t kDeviceOpenFailedBit = 0x02;

bool containsCaseInsensitive(std::string_view text, std::string_view needle) {
    return std::search(text.begin(), text.end(), needle.begin(), needle.end(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
           }) != text.end();
}

}  // namespace

SMARTInfoProvider::SMARTInfoProvider(std::shared_ptr<SmartctlHelperClient> client,
                                     std::shared_ptr<BlockDevices> devices)
    : client_(std::move(client)), devices_(std::move(devices)) {}

std::vector<std::string> SMARTInfoProvider::candidateNames(std::string_view deviceName, BlockDevices& devices) {
    const auto deviceOf = [&devices](const std::string& name) {
        auto device = devices.device(name);
        return device.ok() ? std::move(device).value() : BlockDevice{};
    };
    std::vector<std::string> names;
    const auto add = [&names](const std::string& name) {
        if (names.size() < kMaximumCandidates && !name.empty() &&
            std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    };
    std::string name(text::trimmed(deviceName));
    if (name.rfind("/dev/", 0) == 0) name.erase(0, 5);
    add(name);
    if (name.empty()) return names;

    const BlockDevice named = deviceOf(name);
    if (named.wholeDisk) add(*named.wholeDisk);
    // The disks under a stacked device: partitions become their disks, stacked devices are opened
    // up in turn. The visited set keeps a malformed tree from looping.
    std::vector<std::string> pending = named.members;
    std::vector<std::string> visited{name};
    while (!pending.empty() && names.size() < kMaximumCandidates) {
        const std::string memberName = pending.front();
        pending.erase(pending.begin());
        if (std::find(visited.begin(), visited.end(), memberName) != visited.end()) continue;
        visited.push_back(memberName);
        const BlockDevice member = deviceOf(memberName);
        if (!member.members.empty()) {
            pending.insert(pending.begin(), member.members.begin(), member.members.end());
            continue;
        }
        add(member.wholeDisk.value_or(memberName));
    }
    const std::vector<std::string> found = names;
    for (const auto& candidate : found) {
        if (const auto controller = deviceOf(candidate).nvmeController) add(*controller);
    }
    return names;
}

bool SMARTInfoProvider::reportsSleepingDrive(const SmartctlExecutionResult& result) {
    if ((result.terminationStatus & kDeviceOpenFailedBit) == 0) return false;
    for (const std::string_view text : {std::string_view(result.jsonData), std::string_view(result.standardError)}) {
        if (containsCaseInsensitive(text, "STANDBY mode") || containsCaseInsensitive(text, "SLEEP mode")) return true;
    }
    return false;
}

SMARTInfoProvider::Outcome SMARTInfoProvider::fetch(std::string_view deviceName,
                                                    const CancellationToken& cancellation) {
    const std::string original(deviceName);
    providerLogger().debug("Starting smartctl-only SMART fetch for device {}", original);
    const auto candidates = candidateNames(original, *devices_);
    providerLogger().debug("Evaluating candidate devices {} for original device {}", listText(candidates), original);
    // Stays set while every request so far failed in the helper or on the way to it.
    std::optional<HelperRequestFailure> helperFailure;
    bool helperAnswered = false;
    for (const auto& candidate : candidates) {
        if (cancellation.isCancelled()) return {};
        auto result = attempt(candidate, cancellation);
        if (result.info) {
            // Debug: with a volume selected, this comes with every refresh.
            providerLogger().debug("SMART data sourced from smartctl for device {}", candidate);
            return {std::move(result.info), false, std::move(result.smartctlJson), std::nullopt};
        }
        if (result.driveAsleep) {
            // The other names lead to the same drive; asking again would only be refused again.
            providerLogger().debug(
                "smartctl left device {} alone because the drive is in standby; keeping the SMART data "
                "already known",
                candidate);
            return {std::nullopt, true, {}, std::nullopt};
        }
        if (result.helperFailure) helperFailure = result.helperFailure;
        else helperAnswered = true;
        providerLogger().debug("smartctl attempt did not return usable data for candidate device {}", candidate);
    }
    if (cancellation.isCancelled()) return {};
    providerLogger().error("All smartctl attempts exhausted for device {}; SMART data unavailable", original);
    return {std::nullopt, false, {}, helperAnswered ? std::nullopt : helperFailure};
}

SMARTInfoProvider::Attempt SMARTInfoProvider::attempt(const std::string& name, const CancellationToken& cancellation) {
    if (!client_->manager().runtimeEnvironment().allowsPrivilegedOperations) {
        // Debug: with a volume selected, this comes with every refresh; the manager said once why.
        bridgeLogger().debug("Privileged operations disabled; skipping smartctl request for device {}", name);
        return {std::nullopt, false, {}, HelperRequestFailure::privilegedOperationsDisabled};
    }
    bridgeLogger().debug("Requesting SMART info from privileged helper for device {}", name);
    const auto result = client_->fetchSmartData(name, cancellation);
    if (!result.ok()) {
        if (!cancellation.isCancelled()) {
            bridgeLogger().error("Privileged helper failed to provide SMART data for device {}", name);
        }
        return {std::nullopt, false, {}, result.error()};
    }
    auto info = smart::interpretResult(*result, name);
    if (!info && reportsSleepingDrive(*result)) return {std::nullopt, true, {}, std::nullopt};
    const bool usable = info.has_value();
    return {std::move(info), false, usable ? result->jsonData : std::string(), std::nullopt};
}

}  // namespace vantorix
