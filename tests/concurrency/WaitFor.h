#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace vantorix::testing {

// Polls `condition` until it holds or `timeout` passes. The timeouts in these tests only keep a
// broken build from hanging; no assertion depends on how fast the machine is.
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::steady_clock::duration timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// Calls post(producer, index) for indices 0 .. items - 1 from each of `producers` threads at once.
inline void postFromThreads(int producers, int items, const std::function<void(int, int)>& post) {
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < items; ++i) post(p, i);
        });
    for (auto& thread : threads) thread.join();
}

// Whether `seen` holds every (producer, index) of postFromThreads, each producer's in its order.
inline bool keepsEachProducersOrder(const std::vector<std::pair<int, int>>& seen, int producers, int items) {
    if (seen.size() != static_cast<std::size_t>(producers * items)) return false;
    std::vector<int> next(static_cast<std::size_t>(producers));
    for (const auto& [producer, index] : seen)
        if (index != next[static_cast<std::size_t>(producer)]++) return false;
    return true;
}

}  // namespace vantorix::testing
