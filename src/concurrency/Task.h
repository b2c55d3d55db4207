#pragma once

#include "concurrency/Cancellation.h"
#include "concurrency/ThreadAttributes.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace vantorix {

// An asynchronous task: a body that runs on a thread of its own (named after `name`, at the nice
// value of `qos`) and is cancelled cooperatively: the body receives a token, polls it and sleeps
// with it. An exception that escapes the body is logged (category "Concurrency").
//
// The handle does not wait for the body when it is destroyed or assigned over: it requests
// cancellation and lets the thread finish by itself, so whatever the body uses must be its own
// or held weakly. Call join() (or waitFor()) when the body must have finished, for instance
// before the program exits.
class Task {
public:
    using Clock = std::chrono::steady_clock;
    using Body = std::function<void(const CancellationToken&)>;

    // An empty handle, with no thread.
    Task() = default;
    Task(std::string name, QualityOfService qos, Body body);

    // Requests cancellation and lets the thread run on, detached.
    ~Task();

    Task(Task&& other) noexcept = default;
    // Requests cancellation of the task this handle had (without waiting), then takes `other`'s.
    Task& operator=(Task&& other) noexcept;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    bool valid() const noexcept { return state_ != nullptr; }

    // Requests cancellation; returns at once. Safe from any thread.
    void cancel() noexcept;
    bool isCancelled() const noexcept;
    CancellationToken token() const;

    // True once the body has returned (or thrown).
    bool isFinished() const;

    // Waits until the body has returned. Does nothing for an empty or already joined handle, or
    // when called from the task's own thread (which would wait for itself).
    void join();
    // Waits at most `timeout` for the body; true when it has returned.
    bool waitFor(Clock::duration timeout);

private:
    struct State;

    std::shared_ptr<State> state_;
    std::thread thread_;

    void release() noexcept;
};

}  // namespace vantorix
