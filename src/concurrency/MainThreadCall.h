#pragma once

#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "concurrency/MainExecutor.h"

namespace vantorix {

// Runs `work` on the main thread and returns its result: at once when called on the main thread,
// otherwise posted there while the calling thread waits. Nothing when the executor discarded the
// work without running it (it was destroyed first). The main thread must never wait for a thread
// that is inside this call: that thread is waiting for the main thread.
template <class F>
auto callOnMainThread(MainExecutor& main, F&& work) -> std::optional<std::invoke_result_t<F&>> {
    using R = std::invoke_result_t<F&>;
    static_assert(!std::is_void_v<R>, "the work returns the value the caller waits for");
    if (main.isMainThread()) return std::invoke(work);
    auto task = std::make_shared<std::packaged_task<R()>>([&work]() -> R { return std::invoke(work); });
    std::future<R> result = task->get_future();
    main.post([task] { (*task)(); });
    try {
        return result.get();
    } catch (const std::future_error&) {
        return std::nullopt;  // broken promise: the work was dropped with the executor
    }
}

}  // namespace vantorix
