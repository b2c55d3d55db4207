#include "cli/SignalWatcher.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>

#include "cli/Commands.h"
#include "concurrency/LoopMainExecutor.h"

namespace vantorix::cli {
namespace {
// Sent by the destructor to end the watching thread.
constexpr int kQuitSignal = SIGUSR1;

// A signal can come twice at once: `timeout` and service managers send it to the process and to
// its group. Only one that comes this long after the first, with the first still not taken, means
// that the main thread is held up.
constexpr std::chrono::seconds kHeldUp{1};

// `number` and `at` belong to the watching thread; `taken` is set on the main thread.
struct FirstSignal {
    int number = 0;
    std::chrono::steady_clock::time_point at;
    std::atomic<bool> taken{false};
};
}  // namespace

SignalWatcher::SignalWatcher(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal)) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, kQuitSignal}) sigaddset(&set, signal);
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

SignalWatcher::SignalWatcher(std::shared_ptr<LoopMainExecutor> main, std::function<void(int)> stop)
    : SignalWatcher(
          [main = std::move(main), stop = std::move(stop), first = std::make_shared<FirstSignal>()](int signal) {
              if (first->number == 0) {
                  first->at = std::chrono::steady_clock::now();
                  first->number = signal;
                  main->post([stop, first, signal] {
                      first->taken = true;
                      stop(signal);
                  });
              } else if (!first->taken && std::chrono::steady_clock::now() - first->at >= kHeldUp) {
                  std::_Exit(stoppedBy(signal));
              }
          }) {}

SignalWatcher::~SignalWatcher() {
    pthread_kill(thread_.native_handle(), kQuitSignal);
    thread_.join();
    pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

}  // namespace vantorix::cli
