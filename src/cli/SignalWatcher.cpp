#include "cli/SignalWatcher.h"

#include <pthread.h>

namespace vantorix::cli {
namespace {
// Sent by the destructor to end the watching thread.
constexpr int kQuitSignal = SIGUSR1;
}  // namespace

SignalWatcher::SignalWatcher(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal)) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, kQuitSignal);
    pthread_sigmask(SIG_BLOCK, &set, &previousMask_);
    thread_ = std::thread([this, set] {
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0) continue;
            if (signal == kQuitSignal) return;
            onSignal_(signal);
        }
    });
}

SignalWatcher::~SignalWatcher() {
    pthread_kill(thread_.native_handle(), kQuitSignal);
    thread_.join();
    pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

}  // namespace vantorix::cli
