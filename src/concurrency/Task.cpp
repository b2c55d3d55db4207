#include "concurrency/Task.h"

#include "log/Log.h"

#include <condition_variable>
#include <mutex>
#include <utility>

namespace vantorix {

struct Task::State {
    explicit State(std::string taskName) : name(std::move(taskName)) {}

    const std::string name;
    CancellationSource cancellation;
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
};

Task::Task(std::string name, QualityOfService qos, Body body) : state_(std::make_shared<State>(std::move(name))) {
    thread_ = std::thread([state = state_, qos, body = std::move(body)] {
        configureCurrentThread(state->name, qos);
        try {
            if (body) body(state->cancellation.token());
        } catch (const std::exception& e) {
            log::logger("Concurrency").error("Task {} failed: {}", state->name, e.what());
        } catch (...) {
            log::logger("Concurrency").error("Task {} failed with an unknown exception", state->name);
        }
        {
            std::lock_guard lock(state->mutex);
            state->finished = true;
        }
        state->done.notify_all();
    });
}

Task::~Task() { release(); }

Task& Task::operator=(Task&& other) noexcept {
    if (this != &other) {
        release();
        state_ = std::move(other.state_);
        thread_ = std::move(other.thread_);
    }
    return *this;
}

void Task::release() noexcept {
    if (state_) state_->cancellation.cancel();
    if (thread_.joinable()) thread_.detach();
    state_.reset();
}

void Task::cancel() noexcept {
    if (state_) state_->cancellation.cancel();
}

bool Task::isCancelled() const noexcept { return state_ && state_->cancellation.isCancelled(); }

CancellationToken Task::token() const { return state_ ? state_->cancellation.token() : CancellationToken(); }

bool Task::isFinished() const {
    if (!state_) return false;
    std::lock_guard lock(state_->mutex);
    return state_->finished;
}

void Task::join() {
    if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id()) return;
    thread_.join();
}

bool Task::waitFor(Clock::duration timeout) {
    if (!state_) return false;
    {
        std::unique_lock lock(state_->mutex);
        if (!state_->done.wait_for(lock, timeout, [this] { return state_->finished; })) return false;
    }
    join();  // the body has returned; the thread is about to end
    return true;
}

}  // namespace vantorix
