#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <vector>

#include "platform/linux/IoUringQueuedFile.h"
#include "support/TemporaryFolder.h"

namespace vantorix {
namespace {

using namespace std::chrono_literals;
using Pattern = QueuedJob::Pattern;
using Direction = QueuedJob::Direction;

constexpr std::uint64_t kSpan = 4 << 20;
constexpr std::uint64_t kTail = 1 << 20;  // past the span: must never be written
constexpr char kSentinel = static_cast<char>(0xA5);

// A folder under /var/tmp, which sits on a disk file system that takes direct I/O (tmpfs /tmp
// would not test the real thing).
class QueuedFileTest : public ::testing::Test {
protected:
    // A file of `kSpan` zero bytes followed by `kTail` sentinel bytes, opened for queued I/O.
    std::unique_ptr<QueuedFile> makeFile() {
        path_ = folder_.string() + "/data";
        std::ofstream out(path_, std::ios::binary);
        out.seekp(static_cast<std::streamoff>(kSpan));
        const std::vector<char> tail(kTail, kSentinel);
        out.write(tail.data(), static_cast<std::streamsize>(tail.size()));
        out.close();
        auto file = openIoUringQueuedFile(path_);
        if (!file && file.error().code == EINVAL) return nullptr;
        EXPECT_TRUE(file.ok()) << file.error().message;
        return file ? std::move(file).value() : nullptr;
    }

    std::string contents() const { return testing::fileContents(path_); }

    // The file kept its size and its tail.
    void expectTailUntouched() const {
        const auto bytes = contents();
        ASSERT_EQ(bytes.size(), kSpan + kTail);
        EXPECT_TRUE(std::all_of(bytes.begin() + kSpan, bytes.end(), [](char b) { return b == kSentinel; }));
    }

    // How many `blockSize` blocks of the span hold something other than zeros.
    std::uint64_t writtenBlocks(std::uint64_t blockSize) const {
        const auto bytes = contents();
        std::uint64_t written = 0;
        for (std::uint64_t at = 0; at < kSpan; at += blockSize) {
            const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            const auto end = begin + static_cast<std::ptrdiff_t>(blockSize);
            written += std::any_of(begin, end, [](char b) { return b != 0; });
        }
        return written;
    }

    const testing::TemporaryFolder folder_{"/var/tmp"};
    std::string path_;
};

#define OPEN_OR_SKIP(file)  \
    auto file = makeFile(); \
    if (!file) GTEST_SKIP() << folder_.string() << " does not take direct I/O on this system"

// Each job on a fresh file: whole blocks counted, progress reported in order, writes kept to the
// span (reads cover the whole file, so one past its end would fail the job).
TEST_F(QueuedFileTest, JobsMoveWholeBlocksWithinTheirSpanUntilTheirTimeOrByteLimit) {
    constexpr std::uint64_t kBlocks = kSpan / 65536;
    struct Case {
        Pattern pattern;
        Direction direction;
        std::uint32_t block, depth;
        std::uint64_t limitBlocks;  // 0: 200 ms instead
    };
    const Case cases[] = {
        {Pattern::sequential, Direction::read, 65536, 1, 0},
        {Pattern::random, Direction::write, 4096, 32, 0},
        {Pattern::sequential, Direction::write, 65536, 1, 3},
        {Pattern::sequential, Direction::write, 65536, 8, 10},
        {Pattern::sequential, Direction::write, 65536, 32, kBlocks},
        {Pattern::sequential, Direction::write, 65536, 8, kBlocks + 2},  // wraps to 0
        {Pattern::random, Direction::write, 65536, 32, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << static_cast<int>(c.pattern) << static_cast<int>(c.direction) << " depth "
                                          << c.depth << ", " << c.limitBlocks << " blocks");
        OPEN_OR_SKIP(file);
        const bool timed = c.limitBlocks == 0;
        const auto span = c.direction == Direction::read ? kSpan + kTail : kSpan;
        const auto limit = timed ? std::nullopt : std::optional(c.limitBlocks * c.block);
        const QueuedJob job{c.pattern, c.direction, c.block, c.depth, span, timed ? 200ms : 0ns, limit};
        std::vector<std::uint64_t> reported;
        auto figures = file->run(job, {}, [&](std::uint64_t bytes) { reported.push_back(bytes); });
        ASSERT_TRUE(figures.ok()) << figures.error().message;
        EXPECT_EQ(figures->operations * job.blockSize, figures->bytes);
        EXPECT_GT(figures->seconds, 0);
        EXPECT_TRUE(std::is_sorted(reported.begin(), reported.end()));
        EXPECT_TRUE(reported.empty() || reported.back() <= figures->bytes);
        EXPECT_TRUE(!timed || (figures->bytes > 0 && !reported.empty()));
        ASSERT_TRUE(file->close().ok());
        expectTailUntouched();
        if (timed) continue;
        EXPECT_EQ(figures->bytes, *job.byteLimit);
        const std::uint64_t written = writtenBlocks(c.block);
        if (c.pattern == Pattern::sequential) {
            EXPECT_EQ(written, std::min(c.limitBlocks, kBlocks));
            EXPECT_EQ(writtenBlocks(4096), std::min(c.limitBlocks, kBlocks) * (c.block / 4096));  // random, not zeros
        } else {
            EXPECT_GE(written, 1u);
            EXPECT_LE(written, c.limitBlocks);
        }
    }
}

// The error code of a failed result; 0 for success.
template <class R>
int errorCode(const R& result) {
    return result.ok() ? 0 : result.error().code;
}

TEST_F(QueuedFileTest, AStopOrTheFileEndEndsAJobAndMalformedJobsAreRefused) {
    OPEN_OR_SKIP(file);
    QueuedJob job{Pattern::random, Direction::read, 4096, 8, kSpan, 1h, std::nullopt};
    int asked = 0;
    auto stopped = file->run(job, [&] { return ++asked == 5; }, {});
    ASSERT_TRUE(stopped.ok()) << stopped.error().message;
    EXPECT_EQ(asked, 5);
    EXPECT_GT(stopped->operations, 0u);
    EXPECT_EQ(stopped->operations * 4096, stopped->bytes);

    // The file shrinks under a running job to less than a block: reads come back short, then meet
    // its end.
    job = {Pattern::sequential, Direction::read, 65536, 8, kSpan, 1h, std::nullopt};
    EXPECT_EQ(errorCode(file->run(job, [&] { return !file->truncate(3 * 4096).ok(); }, {})), ENODATA);
    // Nothing was left in flight: the file takes the next job.
    job.direction = Direction::write;
    job.byteLimit = kSpan;
    auto rewritten = file->run(job, {}, {});
    ASSERT_TRUE(rewritten.ok()) << rewritten.error().message;
    EXPECT_EQ(rewritten->bytes, kSpan);

    const QueuedJob good{Pattern::sequential, Direction::read, 65536, 4, kSpan, 1h, std::nullopt};
    std::vector<QueuedJob> bad(9, good);
    bad[0].blockSize = 6144;
    bad[8].blockSize = 0;
    bad[1].queueDepth = 0;
    bad[2].queueDepth = 257;
    bad[3].span = 0;
    bad[4].span = kSpan + 4096;
    bad[5].span = kSpan + kTail + 65536;  // past the end of the file
    bad[6].byteLimit = 65536 + 4096;
    bad[7].duration = 0ns;  // and no byte limit: it would never end
    for (std::size_t i = 0; i < bad.size(); ++i) EXPECT_EQ(errorCode(file->run(bad[i], {}, {})), EINVAL) << i;
    ASSERT_TRUE(file->close().ok());
    EXPECT_EQ(errorCode(file->run(good, {}, {})), EBADF);
    EXPECT_EQ(errorCode(openIoUringQueuedFile(folder_.string() + "/missing")), ENOENT);
}

}  // namespace
}  // namespace vantorix
