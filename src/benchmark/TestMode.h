#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/QueuedFile.h"

namespace vantorix {

// What kind of test runs. The standard test is the four-phase test at queue depth 1; the
// queue-depth test measures the four classic profiles on io_uring with direct I/O; the
// sustained-write test writes one large file on io_uring with direct I/O and follows its speed.
enum class TestKind { standard, queueDepth, sustainedWrite };

struct TestMode {
    TestKind kind = TestKind::standard;
    // The standard test with direct I/O in all four phases. The other tests always bypass the
    // cache.
    bool bypassCache = false;
    double secondsPerProfile = 5.0;  // queue-depth test: each read and each write runs this long

    bool isDefault() const { return kind == TestKind::standard && !bypassCache; }
    bool usesDirectIo() const { return kind != TestKind::standard || bypassCache; }

    friend bool operator==(const TestMode&, const TestMode&) = default;
};

// "standard", "queueDepth" or "sustainedWrite".
std::string rawValue(TestKind kind);
// The mode and its parameters in a line, in the current language.
std::string modeDescription(const TestMode& mode);
// "SEQ1M Q8T1 Read" and so on; a profile index past the last names the file's preparation.
std::string queueDepthStepName(std::size_t profile, bool write);
// The sustained-write test's one step, as its progress names it.
std::string sustainedStepName();

// One of the queue-depth test's access patterns.
struct QueueDepthProfile {
    const char* name;  // "SEQ1M Q8T1" and so on
    QueuedJob::Pattern pattern;
    std::uint32_t blockSize;
    std::uint32_t queueDepth;
};

inline constexpr std::array<QueueDepthProfile, 4> kQueueDepthProfiles{{
    {"SEQ1M Q8T1", QueuedJob::Pattern::sequential, 1'048'576, 8},
    {"SEQ1M Q1T1", QueuedJob::Pattern::sequential, 1'048'576, 1},
    {"RND4K Q32T1", QueuedJob::Pattern::random, 4096, 32},
    {"RND4K Q1T1", QueuedJob::Pattern::random, 4096, 1},
}};

// The read and the write figures of one profile.
struct QueueDepthFigure {
    std::string profile;  // the profile's name
    double readBytesPerSecond = 0;
    double readIOPS = 0;
    double writeBytesPerSecond = 0;
    double writeIOPS = 0;

    friend bool operator==(const QueueDepthFigure&, const QueueDepthFigure&) = default;
};

}  // namespace vantorix
