#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "helper/FramedReply.h"
#include "helper/SmartctlRun.h"

namespace vantorix::helper {

// Decides when smartctl runs for which device. Two runs on one device at once make drives log
// aborted commands, so a device has at most one run; requests that arrive while it is in flight,
// or within a second of its end, share its result (several windows polling one drive once a
// second run smartctl once a second). At most kMaximumRuns devices run at once; requests for
// further devices wait in arrival order, and beyond kMaximumWaiting waiting requests they are
// refused with busy. While a killed run's child has not been reaped, its device is refused with
// deviceStuck rather than piling up processes.
class RunCoalescer {
public:
    static constexpr std::size_t kMaximumRuns = 4;
    static constexpr std::size_t kMaximumWaiting = 64;
    static constexpr std::chrono::milliseconds kDefaultShareWindow{1000};

    // Who waits for a reply. Once its owner is gone the reply is dropped, and a queued run whose
    // waiters are all gone does not start.
    struct Waiter {
        std::weak_ptr<const void> owner;
        std::function<void(const FramedReply&)> deliver;
    };

    // `shareWindow`: how long after a run ended its result still answers requests (zero: not at all).
    RunCoalescer(asio::io_context& io, std::string program, RunLimits limits,
                 std::chrono::milliseconds shareWindow = kDefaultShareWindow);
    ~RunCoalescer();
    RunCoalescer(const RunCoalescer&) = delete;
    RunCoalescer& operator=(const RunCoalescer&) = delete;

    // Answers the waiter, never from inside this call, with the reply to a smartctl run on
    // devicePath, the /dev node of the validated device name.
    void request(const std::string& name, const std::string& devicePath, Waiter waiter);

    // Nothing running, waiting or left to reap.
    bool idle() const;

    // Kills every child and forgets every waiter: the daemon is stopping.
    void stop();
    // After stop(): every child it killed has been reaped.
    bool stoppedChildrenEnded() const;

private:
    struct Device {
        explicit Device(asio::io_context& io) : expiry(io) {}
        std::string path;
        std::vector<Waiter> waiters;            // of the run in flight, or of the queued run
        std::shared_ptr<SmartctlRun> run;       // in flight
        std::shared_ptr<SmartctlRun> unreaped;  // answered, its child not reaped yet
        bool queued = false;
        FramedReply lastReply;  // shared for the share window after the run ended
        std::chrono::steady_clock::time_point endedAt;
        asio::steady_timer expiry;  // drops lastReply when the window closes
    };

    void launch(const std::string& name, Device& device);
    void finished(const std::string& name, const SmartctlRun::Outcome& outcome);
    void reaped(const std::string& name);
    void startWaitingRuns();
    void dropAbandonedWaiters();
    void answerLater(Waiter waiter, FramedReply reply);

    asio::io_context& io_;
    std::string program_;
    RunLimits limits_;
    std::chrono::milliseconds shareWindow_;
    std::map<std::string, std::unique_ptr<Device>> devices_;  // only names of devices that exist
    std::deque<std::string> queue_;
    std::vector<std::shared_ptr<SmartctlRun>> abandoned_;
    std::size_t running_ = 0;
    std::size_t waiting_ = 0;
};

}  // namespace vantorix::helper
