#pragma once

#include <optional>
#include <string>

#include "composition/SmartPipeline.h"
#include "concurrency/Cancellation.h"
#include "concurrency/LoopMainExecutor.h"
#include "concurrency/Subscription.h"

namespace vantorix::cli {

// One SMART fetch for a device name, made on a task of its own while the calling thread (the main
// thread) keeps running `main`'s loop: registering the helper needs the main thread. Returns when
// the fetch ends, or soon after `cancellation` is cancelled (with nothing).
SMARTInfoProvider::Outcome fetchSmartInfo(const SmartPipeline& pipeline, LoopMainExecutor& main,
                                          const std::string& deviceName, CancellationSource& cancellation);

// Hears the helper manager's request for an administrator's approval while it exists.
class ApprovalListener {
public:
    ApprovalListener();
    bool requested() const { return *requested_; }

private:
    std::shared_ptr<bool> requested_ = std::make_shared<bool>(false);
    Subscription subscription_;
};

// Why the helper could not be asked, in the user's language: privileged operations are disabled,
// an administrator has to enable the helper (the text says how), it is not installed, or it could
// not be started. Nothing when the helper was available (it may still have failed the requests:
// SMARTInfoProvider::Outcome::helperFailure tells).
std::optional<std::string> helperUnavailableReason(const SmartPipeline& pipeline, const ApprovalListener& approval);

}  // namespace vantorix::cli
