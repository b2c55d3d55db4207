#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "platform/FileSystem.h"
#include "util/Result.h"

namespace vantorix {

// One stretch of asynchronous I/O on a file opened for direct I/O, kept `queueDepth` requests
// deep until `duration` has passed (or `byteLimit` bytes have moved, when given).
struct QueuedJob {
    enum class Pattern { sequential, random };
    enum class Direction { read, write };

    Pattern pattern = Pattern::sequential;
    Direction direction = Direction::read;
    std::uint32_t blockSize = 1'048'576;  // bytes; a multiple of 4096
    std::uint32_t queueDepth = 1;         // 1 to 256 requests in flight
    // The part of the file the job covers, from offset 0; a multiple of `blockSize`. Sequential
    // jobs wrap to offset 0 at its end; random jobs draw block-aligned offsets uniformly in it.
    std::uint64_t span = 0;
    std::chrono::nanoseconds duration{0};
    std::optional<std::uint64_t> byteLimit;  // stop once this many bytes have moved
};

// What a job did: completed requests, their bytes and the seconds from the first submission to
// the last completion.
struct QueuedFigures {
    std::uint64_t operations = 0;
    std::uint64_t bytes = 0;
    double seconds = 0;
};

// A file opened for direct, queued I/O (read and write). Written data is random and
// incompressible.
class QueuedFile {
public:
    virtual ~QueuedFile() = default;

    // Runs one job. `shouldStop` is asked between completions; when it says yes no new request
    // is submitted, those in flight are waited for and the figures so far are returned.
    // `progress` is told the bytes completed so far, at most every few milliseconds.
    virtual Result<QueuedFigures, FileError> run(const QueuedJob& job, const std::function<bool()>& shouldStop,
                                                 const std::function<void(std::uint64_t)>& progress) = 0;
    virtual Result<Unit, FileError> truncate(std::uint64_t length) = 0;
    virtual Result<Unit, FileError> synchronize() = 0;
    virtual Result<Unit, FileError> close() = 0;

protected:
    QueuedFile() = default;
    QueuedFile(const QueuedFile&) = default;
    QueuedFile& operator=(const QueuedFile&) = default;
};

}  // namespace vantorix
