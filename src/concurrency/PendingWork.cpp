#include "concurrency/PendingWork.h"

#include "log/Log.h"

#include <exception>
#include <utility>

namespace vantorix::detail {

void PendingWork::push(std::function<void()> item) {
    {
        std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
    }
    arrived_.notify_one();
}

std::optional<std::function<void()>> PendingWork::take(std::optional<Clock::time_point> deadline) {
    std::unique_lock lock(mutex_);
    const auto ready = [this] { return !items_.empty(); };
    if (deadline) {
        if (!arrived_.wait_until(lock, *deadline, ready)) return std::nullopt;
    } else {
        arrived_.wait(lock, ready);
    }
    std::optional<std::function<void()>> item(std::move(items_.front()));
    items_.pop_front();
    return item;
}

std::optional<std::function<void()>> PendingWork::tryTake() {
    std::lock_guard lock(mutex_);
    if (items_.empty()) return std::nullopt;
    std::optional<std::function<void()>> item(std::move(items_.front()));
    items_.pop_front();
    return item;
}

std::size_t PendingWork::size() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

void runMainWork(const std::function<void()>& item) {
    try {
        item();
    } catch (const std::exception& e) {
        log::logger("Concurrency").error("Work on the main thread failed: {}", e.what());
    } catch (...) {
        log::logger("Concurrency").error("Work on the main thread failed with an unknown exception");
    }
}

}  // namespace vantorix::detail
