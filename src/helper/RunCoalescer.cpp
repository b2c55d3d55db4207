#include "helper/RunCoalescer.h"

#include <fmt/format.h>
#include <asio/post.hpp>

#include <algorithm>
#include <utility>

#include "log/Log.h"

namespace vantorix::helper {
namespace {

using protocol::HelperFailure;

const log::Logger& coalescerLogger() { return log::logger("PrivilegedSmartctlHelper"); }

}  // namespace

RunCoalescer::RunCoalescer(asio::io_context& io, std::string program, RunLimits limits,
                           std::chrono::milliseconds shareWindow)
    : io_(io), program_(std::move(program)), limits_(limits), shareWindow_(shareWindow) {}

// stop() cancels timers and keeps the abandoned runs, which can throw; a destructor must not, and
// nothing more can be done for runs whose owner is going away.
RunCoalescer::~RunCoalescer() {
    try {
        stop();
    } catch (...) {  // see above
    }
}

void RunCoalescer::request(const std::string& name, const std::string& devicePath, Waiter waiter) {
    auto& entry = devices_[name];
    if (!entry) entry = std::make_unique<Device>(io_);
    Device& device = *entry;
    device.path = devicePath;

    if (device.run) {
        device.waiters.push_back(std::move(waiter));
        return;
    }
    if (device.unreaped) {
        coalescerLogger().debug("Refused {}: its stopped smartctl (pid {}) has not ended", name,
                                device.unreaped->pid());
        answerLater(std::move(waiter),
                    framedReply(protocol::helperError(
                        HelperFailure::deviceStuck,
                        fmt::format("An earlier smartctl run on \"{}\" was stopped but has not ended yet.", name))));
        return;
    }
    if (device.lastReply && std::chrono::steady_clock::now() - device.endedAt <= shareWindow_) {
        answerLater(std::move(waiter), device.lastReply);
        return;
    }
    if (!device.queued && running_ < kMaximumRuns) {
        device.waiters.push_back(std::move(waiter));
        launch(name, device);
        return;
    }
    if (waiting_ >= kMaximumWaiting) dropAbandonedWaiters();
    if (waiting_ >= kMaximumWaiting) {
        coalescerLogger().debug("Refused {}: {} requests are already waiting", name, waiting_);
        answerLater(std::move(waiter),
                    framedReply(protocol::helperError(HelperFailure::busy,
                                                      "Too many requests are waiting for smartctl; try again later.")));
        return;
    }
    device.waiters.push_back(std::move(waiter));
    ++waiting_;
    if (!device.queued) {
        device.queued = true;
        queue_.push_back(name);
    }
}

bool RunCoalescer::idle() const {
    if (running_ > 0 || !queue_.empty()) return false;
    return std::none_of(devices_.begin(), devices_.end(),
                        [](const auto& entry) { return entry.second->unreaped != nullptr; });
}

void RunCoalescer::stop() {
    for (auto& [name, device] : devices_) {
        device->waiters.clear();
        device->queued = false;
        device->expiry.cancel();
        for (auto* run : {&device->run, &device->unreaped}) {
            if (!*run) continue;
            (*run)->abandon();
            abandoned_.push_back(std::move(*run));
            run->reset();
        }
    }
    queue_.clear();
    running_ = 0;
    waiting_ = 0;
}

bool RunCoalescer::stoppedChildrenEnded() const {
    return std::all_of(abandoned_.begin(), abandoned_.end(), [](const auto& run) { return run->childEnded(); });
}

void RunCoalescer::launch(const std::string& name, Device& device) {
    ++running_;
    device.run = SmartctlRun::start(io_, {program_, "--json", "-a", "-n", "standby", device.path}, limits_,
                                    SmartctlRun::Handlers{
                                        [this, name](const SmartctlRun::Outcome& outcome) { finished(name, outcome); },
                                        [this, name] { reaped(name); },
                                    });
}

void RunCoalescer::finished(const std::string& name, const SmartctlRun::Outcome& outcome) {
    Device& device = *devices_.at(name);
    --running_;
    // Until reaped() says otherwise (at once, for a child that ended by itself), the child lives.
    device.unreaped = std::move(device.run);
    device.lastReply = std::visit([](const auto& value) { return framedReply(protocol::Reply(value)); }, outcome);
    device.endedAt = std::chrono::steady_clock::now();
    device.expiry.expires_after(shareWindow_);
    device.expiry.async_wait([&device](const asio::error_code& error) {
        if (!error) device.lastReply.reset();
    });
    for (auto& waiter : std::exchange(device.waiters, {})) {
        if (!waiter.owner.expired()) waiter.deliver(device.lastReply);
    }
    startWaitingRuns();
}

void RunCoalescer::reaped(const std::string& name) { devices_.at(name)->unreaped.reset(); }

void RunCoalescer::startWaitingRuns() {
    while (running_ < kMaximumRuns && !queue_.empty()) {
        const std::string name = std::move(queue_.front());
        queue_.pop_front();
        Device& device = *devices_.at(name);
        device.queued = false;
        waiting_ -= device.waiters.size();
        std::erase_if(device.waiters, [](const Waiter& waiter) { return waiter.owner.expired(); });
        if (!device.waiters.empty()) launch(name, device);
    }
}

void RunCoalescer::dropAbandonedWaiters() {
    for (const auto& name : queue_) {
        auto& waiters = devices_.at(name)->waiters;
        waiting_ -= static_cast<std::size_t>(
            std::erase_if(waiters, [](const Waiter& waiter) { return waiter.owner.expired(); }));
    }
}

void RunCoalescer::answerLater(Waiter waiter, FramedReply reply) {
    asio::post(io_, [waiter = std::move(waiter), reply = std::move(reply)] {
        if (!waiter.owner.expired()) waiter.deliver(reply);
    });
}

}  // namespace vantorix::helper
