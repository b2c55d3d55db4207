#include "concurrency/Published.h"

#include "log/Log.h"

namespace vantorix::detail {

void reportSubscriberFailure(const std::exception_ptr& failure) noexcept {
    try {
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& e) {
            log::logger("Concurrency").error("A subscriber failed: {}", e.what());
        } catch (...) {
            log::logger("Concurrency").error("A subscriber failed with an unknown exception");
        }
    } catch (...) {
        // Nothing sensible is left to do when logging itself fails.
    }
}

}  // namespace vantorix::detail
