#pragma once

#include <algorithm>
#include <cstddef>

#include "monitor/DiskIOMonitor.h"
#include "monitor/DiskSample.h"

namespace vantorix {

// A stretch of consecutive samples of the monitor's history, read by index like a list: the whole
// history, or its newest samples as the graph shows them. It shares the history's storage, so
// taking and copying a window costs a reference count, whatever its length, and a background job
// may keep one while the monitor appends to the history.
class SampleWindow {
public:
    using History = DiskIOMonitor::SampleHistory;

    SampleWindow() = default;
    // The whole history.
    explicit SampleWindow(History history) : history_(std::move(history)), count_(history_.size()) {}

    // The newest `count` samples of `history` (all of them when it holds fewer).
    static SampleWindow newest(History history, std::size_t count) {
        SampleWindow window(std::move(history));
        const std::size_t kept = std::min(count, window.count_);
        window.first_ = window.count_ - kept;
        window.count_ = kept;
        return window;
    }

    std::size_t size() const noexcept { return count_; }
    bool empty() const noexcept { return count_ == 0; }
    // The sample `index` places after the window's oldest; `index` must be less than size().
    const DiskSample& operator[](std::size_t index) const noexcept { return history_[first_ + index]; }
    const DiskSample& front() const noexcept { return (*this)[0]; }
    const DiskSample& back() const noexcept { return (*this)[count_ - 1]; }

private:
    History history_;
    std::size_t first_ = 0;
    std::size_t count_ = 0;
};

}  // namespace vantorix
