#include "monitor/FixedRingBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vantorix {
namespace {

using Strings = std::vector<std::string>;
using View = FixedRingBuffer<std::string>::Elements;

static_assert(std::random_access_iterator<View::const_iterator>);

// Long enough to live on the heap, so that the sanitizers see a lost or doubly destroyed element.
std::string value(std::size_t i) { return "element number " + std::to_string(i) + " of the history"; }

// Reads the view segment by segment and element by element.
void expectHolds(const View& view, const Strings& expected, const std::string& where) {
    EXPECT_EQ(view.toVector(), expected) << where;
    EXPECT_EQ(Strings(view.begin(), view.end()), expected) << where;
}

// Against a deque: every append's result and count, and every view, which must still show what the
// buffer held then after evictions across segment boundaries, a removeAll and the buffer's destruction.
TEST(FixedRingBuffer, ViewsKeepWhatTheyShowedWhateverTheBufferDoesLater) {
    for (const std::size_t capacity : {1U, 2U, 3U, 5U, 1023U, 1024U, 1025U, 2500U}) {
        const std::string where = "capacity " + std::to_string(capacity);
        std::vector<std::pair<View, Strings>> kept;
        {
            FixedRingBuffer<std::string> buffer(capacity);
            const std::size_t length = buffer.segmentLength();
            const std::size_t appends = 3 * capacity + 2 * length + 7;
            const std::size_t every = std::max<std::size_t>(1, capacity / 5);
            std::deque<std::string> model;
            for (std::size_t i = 0; i < appends; ++i) {
                if (i == appends / 2) {
                    buffer.removeAll();
                    model.clear();
                    expectHolds(buffer.elements(), {}, where + ", after removeAll");
                }
                std::optional<std::string> evicted;
                if (model.size() == capacity) {
                    evicted = model.front();
                    model.pop_front();
                }
                model.push_back(value(i));
                ASSERT_EQ(buffer.append(value(i)), evicted) << where << ", append " << i;
                ASSERT_EQ(buffer.count(), model.size()) << where << ", append " << i;
                if (i % every == 0 || (i + 1) % length <= 2) {
                    kept.emplace_back(buffer.elements(), Strings(model.begin(), model.end()));
                }
            }
        }
        for (std::size_t k = 0; k < kept.size(); ++k) {
            expectHolds(View(kept[k].first), kept[k].second, where + ", view " + std::to_string(k));
        }
    }
}

// For ThreadSanitizer: a reader checks views while the owner appends into the segments they show.
TEST(FixedRingBuffer, ViewsCanBeReadOnAnotherThreadWhileTheBufferAppends) {
    constexpr std::size_t capacity = 3000;  // not a multiple of the segment length
    FixedRingBuffer<std::uint64_t> buffer(capacity);
    std::mutex mutex;
    FixedRingBuffer<std::uint64_t>::Elements latest;
    std::atomic<bool> done{false};
    std::atomic<std::size_t> checked{0}, bad{0};
    std::thread reader([&] {
        while (!done) {
            std::unique_lock lock(mutex);
            const auto view = latest;
            lock.unlock();
            if (view.empty()) continue;
            std::uint64_t next = view.front();
            const bool consecutive = std::all_of(view.begin(), view.end(), [&](auto e) { return e == next++; });
            bad += view.size() > capacity || !consecutive;
            ++checked;
        }
    });
    // Goes on until the reader has seen enough views; the cap only stops a broken build.
    for (std::uint64_t i = 0; i < 30000 || (checked < 50 && i < 50'000'000); ++i) {
        buffer.append(i);
        if (i % 17 == 16) {
            std::lock_guard lock(mutex);
            latest = buffer.elements();
        }
    }
    done = true;
    reader.join();
    EXPECT_GE(checked.load(), 50U);
    EXPECT_EQ(bad.load(), 0U);
}

}  // namespace
}  // namespace vantorix
