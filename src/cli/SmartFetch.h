#pragma once

#include <optional>
#include <string>

#include "composition/SmartPipeline.h"
#include "concurrency/Cancellation.h"
#include "concurrency/LoopMainExecutor.h"

namespace vantorix::cli {

// One SMART fetch for a device name, made on a task of its own while the calling thread (the main
// thread) keeps running `main`'s loop: registering the helper needs the main thread. Returns when
// the fetch ends, or soon after `cancellation` is cancelled (with nothing).
SMARTInfoProvider::Outcome fetchSmartInfo(const SmartPipeline& pipeline, LoopMainExecutor& main,
                                          const std::string& bsdName, const CancellationSource& cancellation);

// Why the helper could not be asked, in the user's language: privileged operations are disabled,
// or the helper is not registered (the text then says how to enable it). Nothing when the helper
// was available, so the lack of data is the drive's.
std::optional<std::string> helperUnavailableReason(const SmartPipeline& pipeline);

}  // namespace vantorix::cli
