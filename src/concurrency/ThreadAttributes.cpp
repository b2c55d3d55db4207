#include "concurrency/ThreadAttributes.h"

#include "log/Log.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace vantorix {

namespace {

constexpr std::size_t kMaximumThreadNameLength = 15;  // pthread_setname_np's limit without the NUL

}  // namespace

int niceValue(QualityOfService qos) noexcept {
    switch (qos) {
        case QualityOfService::userInteractive: return -5;
        case QualityOfService::userInitiated: return 0;
        case QualityOfService::utility: return 5;
        case QualityOfService::background: return 10;
    }
    return 0;
}

std::string threadNameForLabel(std::string_view label) {
    while (!label.empty() && label.back() == '.') label.remove_suffix(1);
    if (const auto dot = label.rfind('.'); dot != std::string_view::npos) label.remove_prefix(dot + 1);
    if (label.empty()) return "vantorix";
    if (label.size() > kMaximumThreadNameLength) {
        std::size_t cut = kMaximumThreadNameLength;
        // Never split a UTF-8 sequence: back up over continuation bytes.
        while (cut > 0 && (static_cast<unsigned char>(label[cut]) & 0xC0U) == 0x80U) --cut;
        label = label.substr(0, cut);
    }
    return std::string(label);
}

void configureCurrentThread(std::string_view label, QualityOfService qos) noexcept {
    try {
        const std::string name = threadNameForLabel(label);
        if (const int rc = pthread_setname_np(pthread_self(), name.c_str()); rc != 0) {
            log::logger("Concurrency").debug("Could not name thread {}: {}", name, std::generic_category().message(rc));
        }
        const int nice = niceValue(qos);
        if (::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), nice) != 0) {
            const int error = errno;
            log::logger("Concurrency")
                .debug("Thread {} keeps its priority (nice {} refused: {})", name, nice,
                       std::generic_category().message(error));
        }
    } catch (...) {
        // Naming and prioritising a thread are conveniences; a failure to log about them is not
        // worth stopping the thread for.
    }
}

}  // namespace vantorix
