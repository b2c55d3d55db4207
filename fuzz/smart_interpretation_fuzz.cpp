// Feeds arbitrary bytes, as smartctl's standard output and standard error, through the SMART
// interpretation in both interface languages, with every log line (debug included) formatted.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "log/Log.h"
#include "smart/SmartmontoolsBridge.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Records go to the capture below only, never to the journal or the terminal.
    ::setenv("VANTORIX_LOG", "off", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // While a capture exists every level is written, so the debug lines are exercised too.
    static auto* capture = new vantorix::log::Capture;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const vantorix::SmartctlExecutionResult result{bytes, "smartctl --json -a /dev/fuzz", bytes,
                                                   static_cast<std::int32_t>(size % 3)};
    for (const char* language : {"en_US", "zh_CN"}) {
        ::setenv("LANGUAGE", language, 1);
        (void)vantorix::smart::interpretResult(result, "fuzz");
    }
    capture->clear();
    return 0;
}
