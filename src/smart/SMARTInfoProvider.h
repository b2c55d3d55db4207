#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "concurrency/Cancellation.h"
#include "platform/BlockDevice.h"
#include "smart/DiskSMARTInfo.h"
#include "smart/SmartctlHelperClient.h"

namespace vantorix {

// The SMART data of a volume's device: asks the privileged helper to run smartctl for a short list
// of related device names (the volume's own, its whole disk, the disks under a mapped device, the
// NVMe controller) until one answer can be interpreted.
class SMARTInfoProvider {
public:
    static constexpr std::size_t kMaximumCandidates = 4;

    // The outcome of one fetch. `driveAsleep` is set when smartctl left the drive alone because it
    // was in standby: then there is no new data, and what was known before is still the best there is.
    // `helperFailure` is set when no name tried got a result from the helper (the last request's
    // failure): then the lack of data is the helper's, not the drive's.
    struct Outcome {
        std::optional<DiskSMARTInfo> info;
        bool driveAsleep = false;
        std::string smartctlJson;  // smartctl's answer that `info` was read from
        std::optional<HelperRequestFailure> helperFailure;
    };

    SMARTInfoProvider(std::shared_ptr<SmartctlHelperClient> client, std::shared_ptr<BlockDevices> devices);

    // The device names tried for a volume's device name, in order, without duplicates, at most four:
    // the name itself (trimmed, without "/dev/"), the whole disk of a partition, the whole disks under
    // a stacked device (recursively), and the controller of each NVMe namespace among them.
    static std::vector<std::string> candidateNames(std::string_view deviceName, BlockDevices& devices);

    // Blocks the calling thread for up to the client's time-out per name tried. Stops early when
    // `cancellation` is cancelled (the outcome is then empty). Every failure is logged.
    Outcome fetch(std::string_view deviceName, const CancellationToken& cancellation = {});

    // Whether smartctl's answer says it skipped a sleeping drive: the "device open failed" bit of its
    // exit status together with its standby or sleep message (the bit alone also means other failures).
    static bool reportsSleepingDrive(const SmartctlExecutionResult& result);

private:
    struct Attempt {
        std::optional<DiskSMARTInfo> info;
        bool driveAsleep = false;
        std::string smartctlJson;
        std::optional<HelperRequestFailure> helperFailure;  // the helper gave no result
    };
    Attempt attempt(const std::string& name, const CancellationToken& cancellation);

    std::shared_ptr<SmartctlHelperClient> client_;
    std::shared_ptr<BlockDevices> devices_;
};

}  // namespace vantorix
