#include "benchmark/DiskPerformanceTester.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "benchmark/PerformanceReport.h"
#include "benchmark/ResultHistory.h"
#include "benchmark/SustainedWrite.h"
#include "benchmark/TemperatureSampler.h"
#include "benchmark/TestError.h"
#include "concurrency/WeakOwner.h"
#include "log/Log.h"
#include "platform/IoBuffer.h"
#include "platform/QueuedFile.h"
#include "text/Formats.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/SystemError.h"

namespace vantorix {
namespace {

using Clock = std::chrono::steady_clock;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Thrown inside a run when its task has been cancelled.
struct RunCancelled {};

// The longest pause between two queue-depth profiles.
constexpr double kQueueDepthRestSeconds = 1.0;

const log::Logger& testerLogger() {
    static const log::Logger& instance = log::logger("DiskPerformanceTester");
    return instance;
}

// Why a payload does not fit, said after the insufficientFreeSpace sentence: "The test needs 64 MB,
// but only 60 MB are free", and, when the space went during the run, that it shrank.
std::string spaceShortfall(std::uint64_t needed, std::uint64_t available, bool shrank) {
    const std::string neededText = payloadSizeText(needed);
    const std::string availableText = payloadSizeText(available);
    if (text::isEnglish()) {
        return shrank ? fmt::format(
                            "The free space shrank after the test started: the test needs {}, but only {} are free",
                            neededText, availableText)
                      : fmt::format("The test needs {}, but only {} are free", neededText, availableText);
    }
    return shrank ? fmt::format("测试开始后可用空间减少了：测试需要 {}，但只有 {} 可用", neededText, availableText)
                  : fmt::format("测试需要 {}，但只有 {} 可用", neededText, availableText);
}

// The step a queue-depth test is in, as the progress shows it.
BenchmarkPhase phaseOfStep(std::size_t profile, bool write) {
    if (profile >= kQueueDepthProfiles.size()) return BenchmarkPhase::sequentialWrite;
    const bool sequential = kQueueDepthProfiles[profile].pattern == QueuedJob::Pattern::sequential;
    if (sequential) return write ? BenchmarkPhase::sequentialWrite : BenchmarkPhase::sequentialRead;
    return write ? BenchmarkPhase::randomWrite : BenchmarkPhase::randomRead;
}

// One buffer of system randomness, which every random write writes.
void fillWithRandomBytes(IoBuffer& buffer, std::random_device& system) {
    for (std::size_t i = 0; i < buffer.size(); i += sizeof(unsigned)) {
        const unsigned word = system();
        for (std::size_t j = 0; j < sizeof(unsigned); ++j)
            buffer.data()[i + j] = static_cast<std::byte>(word >> (8 * j));
    }
}

// The steps of a queue-depth test, as the progress counts them: laying out the file, then each
// profile read and each written.
constexpr std::size_t kQueueDepthSteps = 1 + 2 * kQueueDepthProfiles.size();

// The job that lays out the queue-depth test's file: written whole, sequentially, with no limit
// of time.
QueuedJob layoutJob(std::uint64_t size) {
    QueuedJob layout;
    layout.pattern = QueuedJob::Pattern::sequential;
    layout.direction = QueuedJob::Direction::write;
    layout.blockSize = 1'048'576;
    layout.queueDepth = 8;
    layout.span = size;
    layout.duration = std::chrono::hours(24 * 365);
    layout.byteLimit = size;
    return layout;
}

// The job of one profile in one direction over the file's whole blocks, for `duration`.
QueuedJob profileJob(const QueueDepthProfile& profile, bool write, std::uint64_t size,
                     std::chrono::nanoseconds duration) {
    QueuedJob job;
    job.pattern = profile.pattern;
    job.direction = write ? QueuedJob::Direction::write : QueuedJob::Direction::read;
    job.blockSize = profile.blockSize;
    job.queueDepth = profile.queueDepth;
    job.span = size / profile.blockSize * profile.blockSize;
    job.duration = duration;
    return job;
}

// Puts what one profile measured in one direction into its figure.
void recordProfile(QueueDepthFigure& figure, const QueuedFigures& measured, bool write) {
    const double seconds = std::max(measured.seconds, std::numeric_limits<double>::epsilon());
    const double bytesPerSecond = static_cast<double>(measured.bytes) / seconds;
    const double iops = static_cast<double>(measured.operations) / seconds;
    (write ? figure.writeBytesPerSecond : figure.readBytesPerSecond) = bytesPerSecond;
    (write ? figure.writeIOPS : figure.readIOPS) = iops;
}

// Removes one test file if it is there (a failure is ignored), forgets it and commits the removal,
// so that its space is free for the next file laid out, in this run or the next. The commit is
// made also when a stop's cleanup removed the file first: the run still had it open then, and a
// removed file gives its blocks back only once its last descriptor is closed.
void removeTestFile(TemporaryFileRegistry& registry, const TestFile& file) {
    if (file.folder->exists(file.name)) (void)file.folder->remove(file.name);
    (void)file.folder->commitRemovals();
    registry.remove(file);
}

}  // namespace

// One run on the task's thread: the four phases, from file creation to the assembled result.
// Failures are thrown as TestError, cancellation as RunCancelled.
class DiskPerformanceTester::Run {
public:
    struct Context {
        std::weak_ptr<DiskPerformanceTester> tester;
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<Directory> folder;  // the volume's folder, held for the whole run
        std::shared_ptr<TemporaryFileRegistry> registry;
        std::shared_ptr<SerialQueue> cleanupQueue;
        std::shared_ptr<std::mutex> turn;                       // held by the run that has test files, one at a time
        std::shared_ptr<std::atomic<std::uint64_t>> heldBytes;  // of test files not yet removed
        PhaseObserver observer;
        Parameters parameters;
        DataSize dataSize = DataSize::availableSpace();
        TestMode mode;
        EffectivePayload payload;
        Uuid token;
        std::shared_ptr<BlockDevices> devices;
        std::string deviceName;  // the volume's block device: its counters, its temperature
        std::shared_ptr<DriveTemperatureProbe> temperatureProbe;
        std::optional<Dependencies::History> history;
        health::DriveIdentity drive;  // the drive the volume is on, as its history knows it
    };

    Run(Context context, CancellationToken cancellation)
        : c_(std::move(context)),
          cancellation_(std::move(cancellation)),
          tracker_({0, 0, static_cast<double>(c_.payload.byteCount), static_cast<double>(c_.payload.byteCount)}) {}

    void operator()() {
        Outcome outcome = Outcome::success;
        std::optional<Result> result;
        std::string message;
        try {
            std::unique_lock turn(*c_.turn, std::defer_lock);
            waitForTurn(turn);
            switch (c_.mode.kind) {
                case TestKind::standard: result = perform(); break;
                case TestKind::queueDepth: result = performQueueDepth(); break;
                case TestKind::sustainedWrite: result = performSustainedWrite(); break;
            }
            result->mode = c_.mode;
            compareAndRecord(*result);
        } catch (const RunCancelled&) {
            outcome = Outcome::cancelled;
        } catch (const TestError& error) {
            outcome = Outcome::failed;
            message = error.description();
        } catch (const std::exception& error) {
            outcome = Outcome::failed;
            message = error.what();
        }
        c_.main->post(
            weakly(c_.tester, [token = c_.token, outcome, result = std::move(result), message = std::move(message),
                               folder = c_.folder](DiskPerformanceTester& tester) mutable {
                tester.deliver(token, outcome, std::move(result), std::move(message), std::move(folder));
            }));
    }

private:
    struct RandomFigures {
        std::uint64_t writeCount = 0;
        std::uint64_t readCount = 0;
        double writeIOPS = 0;
        double readIOPS = 0;
    };
    struct SequentialFigures {
        double duration = 0;
        double throughput = 0;
        double maximum = 0;
        std::vector<TimelineSample> samples;
    };

    Result perform() {
        runStart_ = Clock::now();
        checkCancellation();
        openDeviceCounters();
        const std::uint64_t workingSet = std::min(c_.payload.byteCount, randomPhaseWorkingSetLimit);
        const TestFile randomFile = createTestFile("Vantorix_IO_RandomTest_", workingSet);
        RandomFigures random;
        try {
            random = randomPhases(randomFile);
        } catch (...) {
            handToCleanup(randomFile, workingSet);
            throw;
        }
        // The random file is gone, and the file system has committed its removal (with online
        // discard, trimming its blocks), before the sequential phases start: its space is the
        // sequential file's, and the write should not pay for the previous phase.
        handToCleanup(randomFile, workingSet);
        c_.cleanupQueue->sync([] {});

        const TestFile sequentialFile = createTestFile("Vantorix_IO_Test_", c_.payload.byteCount);
        SequentialFigures write;
        SequentialFigures read;
        try {
            write = sequentialWrite(sequentialFile);
            read = sequentialRead(sequentialFile);
            checkInPlace();
        } catch (...) {
            handToCleanup(sequentialFile, c_.payload.byteCount);
            throw;
        }

        Result result;
        result.id = Uuid::make();
        result.dataSize = c_.dataSize;
        result.actualByteCount = c_.payload.byteCount;
        result.isPayloadAdjusted = c_.payload.isAdjusted;
        result.writeDuration = write.duration;
        result.writeThroughput = write.throughput;
        result.readDuration = read.duration;
        result.readThroughput = read.throughput;
        result.randomWriteIOPS = random.writeIOPS;
        result.randomReadIOPS = random.readIOPS;
        result.randomBlockSize = randomBlockSize;
        result.randomOperationCount = static_cast<std::int64_t>(std::min(random.writeCount, random.readCount));
        result.maximumWriteThroughput = write.maximum;
        result.maximumReadThroughput = read.maximum;
        result.timeline = std::move(write.samples);
        result.timeline.insert(result.timeline.end(), std::make_move_iterator(read.samples.begin()),
                               std::make_move_iterator(read.samples.end()));
        result.phaseTraffic = std::move(traffic_);
        result.finishedAt = std::chrono::system_clock::now();
        handToCleanup(sequentialFile, c_.payload.byteCount);
        return result;
    }

    // Compares the result with the previous run of its kind on the drive, and records it. The
    // history is the user's to keep: a run goes on without it, saying why in the log.
    void compareAndRecord(Result& result) {
        if (!c_.history || !c_.drive.known()) return;
        auto opened = health::HealthHistory::open(c_.history->path);
        if (!opened) {
            testerLogger().notice("The run is not recorded: {}", opened.error());
            return;
        }
        auto& history = *opened.value();
        const health::BenchmarkRun run = benchmarkRun(result, c_.history->version);
        if (auto runs = history.runs(c_.drive.key())) {
            if (const auto* previous = previousRun(*runs, run.kind, run.finishedMs))
                result.comparison = compareWith(comparableFigures(result), *previous);
        }
        if (auto recorded = history.recordRun(c_.drive, run); !recorded)
            testerLogger().notice("The run is not recorded: {}", recorded.error());
    }

    void checkCancellation() const {
        if (cancellation_.isCancelled()) throw RunCancelled{};
    }

    // A run stopped just before may still be letting go of its files, on this volume or another:
    // this one starts once it has, and once their removals are committed, so that the space they
    // held is free when this run lays out its files.
    void waitForTurn(std::unique_lock<std::mutex>& turn) {
        while (!turn.try_lock()) {
            if (!cancellation_.sleepFor(std::chrono::milliseconds(20))) throw RunCancelled{};
        }
        c_.cleanupQueue->sync([] {});
        (void)c_.folder->commitRemovals();
        checkCancellation();
        checkInPlace();
    }

    // The folder the run started in must still be where its path leads: a volume unmounted
    // lazily keeps working for the descriptors open on it, while its path leads to the folder
    // underneath, on another file system.
    void checkInPlace() {
        if (c_.folder->isInPlace()) return;
        testerLogger().error(
            "The test's folder is no longer where its path leads: the volume was unmounted or removed");
        throw TestError(TestError::volumeWentAway);
    }

    // Logs why a file operation failed and throws its kind with the system's cause. A volume that
    // went away explains any failure best.
    [[noreturn]] void fail(TestError::Kind kind, std::string_view what, const FileError& error) {
        testerLogger().error("{} failed: {} (errno {})", what, error.message, error.code);
        checkInPlace();
        throw TestError::because(kind, error.code);
    }

    [[noreturn]] void failShortRead(std::string_view what) {
        testerLogger().error("{} returned fewer bytes than asked for", what);
        checkInPlace();
        throw TestError(TestError::readFailed);
    }

    template <class T>
    T checked(::vantorix::Result<T, FileError> result, TestError::Kind kind, std::string_view what) {
        if (!result) fail(kind, what, result.error());
        return std::move(result).value();
    }

    // The free space the run was sized with may have gone since it started (another program
    // wrote, or the volume's figure was old): a file that no longer fits fails the run, saying
    // so, before anything is laid out.
    void ensureRoom(std::uint64_t bytes) {
        auto available = c_.folder->availableBytes();
        if (available && *available < bytes) {
            (void)c_.folder->commitRemovals();
            available = c_.folder->availableBytes();
        }
        if (available && *available < bytes) {
            throw TestError(TestError::insufficientFreeSpace, spaceShortfall(bytes, *available, true));
        }
    }

    TestFile createTestFile(const std::string& prefix, std::uint64_t bytes) {
        checkInPlace();
        ensureRoom(bytes);
        TestFile file{c_.folder, prefix + Uuid::make().text()};
        checked(c_.folder->createEmptyFile(file.name), TestError::temporaryFileCreationFailed, "creating a test file");
        c_.registry->add(file);
        c_.heldBytes->fetch_add(bytes);
        return file;
    }

    // What `work` returns for a test file made for it, which is handed to the cleanup afterwards,
    // whether the work succeeded or threw.
    template <class Work>
    auto withTestFile(const std::string& prefix, std::uint64_t bytes, Work&& work) {
        const TestFile file = createTestFile(prefix, bytes);
        try {
            auto outcome = work(file);
            handToCleanup(file, bytes);
            return outcome;
        } catch (...) {
            handToCleanup(file, bytes);
            throw;
        }
    }

    // Each file created is handed over exactly once, with the bytes it was created for.
    void handToCleanup(const TestFile& file, std::uint64_t bytes) {
        c_.cleanupQueue->async([registry = c_.registry, held = c_.heldBytes, file, bytes] {
            removeTestFile(*registry, file);
            held->fetch_sub(bytes);
        });
    }

    // Writes `data` at the handle's position, `offset`. Writing allocates, and a file system that
    // says it is full may still hold space removals freed just before; it gives it out once they
    // are committed, so a full file system is asked once more after a commit.
    void writeAt(FileHandle& handle, std::uint64_t offset, std::span<const std::byte> data, std::string_view what) {
        auto written = handle.write(data);
        if (!written && written.error().code == ENOSPC) {
            (void)c_.folder->commitRemovals();
            checked(handle.seek(offset), TestError::fileHandleUnavailable, "seeking in a test file");
            written = handle.write(data);
        }
        checked(std::move(written), TestError::writeFailed, what);
    }

    CacheMode cacheMode() const { return c_.mode.bypassCache ? CacheMode::direct : CacheMode::buffered; }

    std::unique_ptr<FileHandle> open(FileAccess access, const TestFile& file) {
        auto handle = c_.folder->open(file.name, access, cacheMode());
        if (!handle) {
            if (cacheMode() == CacheMode::direct && handle.error().code == EINVAL) {
                throw TestError(TestError::directIoUnsupported);
            }
            fail(TestError::fileHandleUnavailable, "opening a test file", handle.error());
        }
        return std::move(handle).value();
    }

    // With the cache bypassed, the working set is written once before the random phases, as a
    // drive would hold it: reading never-written blocks of a sparse file costs the device nothing.
    void layOut(FileHandle& handle, std::uint64_t length) {
        // Direct writes allocate as they go, and a journaling file system hands out the blocks of
        // a file removed just before (an earlier test's, the user's) only once the removal is
        // committed: an fsync of the new file commits it, so what the free space promised is there.
        checked(handle.synchronize(), TestError::temporaryFileCreationFailed, "committing the new test file");
        constexpr std::size_t kChunk = 1'048'576;
        IoBuffer zeros(kChunk);
        for (std::uint64_t offset = 0; offset < length; offset += kChunk) {
            checkCancellation();
            checked(handle.seek(offset), TestError::fileHandleUnavailable, "seeking in the random file");
            writeAt(handle, offset,
                    zeros.bytes(static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, length - offset))),
                    "laying out the random file");
        }
        checked(handle.synchronize(), TestError::writeFailed, "flushing the random file");
    }

    // About once a second, and at the end of each phase: progress, and whether the volume is
    // still there.
    void publish(BenchmarkPhase phase, Clock::time_point now) {
        checkInPlace();
        const ProgressState progress = tracker_.snapshot(phase, runStart_, now);
        c_.main->post(weakly(c_.tester, [token = c_.token, progress](DiskPerformanceTester& tester) {
            tester.publishProgress(token, progress);
        }));
    }

    // The device's counters, when they can be read: a run goes on without them.
    void openDeviceCounters() {
        if (!c_.devices || c_.deviceName.empty()) return;
        auto opened = c_.devices->openStatistics(c_.deviceName);
        if (opened) counters_ = std::move(opened).value();
        else testerLogger().notice("The counters of {} cannot be read: {}", c_.deviceName, opened.error().detail());
    }
    std::optional<BlockStatistics> readCounters() {
        if (!counters_) return std::nullopt;
        auto read = counters_->read();
        if (!read) return std::nullopt;
        return read.value();
    }

    void started(BenchmarkPhase phase) {
        if (c_.observer.started) c_.observer.started(phase);
        phaseStartCounters_ = readCounters();
    }
    // Holds what the phase moved against what the device counted since it started (the counters
    // wrap modulo 2^64, so the difference is right across a wrap).
    void finished(BenchmarkPhase phase, std::uint64_t bytes) {
        if (counters_) {
            PhaseTraffic traffic{phase, bytes, std::nullopt};
            if (const auto now = readCounters(); now && phaseStartCounters_) {
                traffic.deviceBytes = isWritePhase(phase) ? now->bytesWritten() - phaseStartCounters_->bytesWritten()
                                                          : now->bytesRead() - phaseStartCounters_->bytesRead();
            }
            traffic_.push_back(traffic);
        }
        if (c_.observer.finished) c_.observer.finished(phase, bytes);
    }

    // Repeats `request`, one transfer of `block` bytes, from `phaseStart` until `length` has passed,
    // and returns how many were made.
    template <class Request>
    std::uint64_t repeatFor(BenchmarkPhase phase, Clock::time_point phaseStart, Clock::duration length,
                            std::uint64_t block, Request&& request) {
        std::uint64_t count = 0;
        const auto deadline = phaseStart + length;
        for (auto now = phaseStart; now < deadline;) {
            checkCancellation();
            request();
            ++count;
            tracker_.advance(phase, static_cast<double>(block));
            now = Clock::now();
            if (tracker_.shouldPublish(now) || now >= deadline) publish(phase, now);
        }
        return count;
    }

    // Ends a phase's progress and returns its duration in seconds.
    double completePhase(BenchmarkPhase phase, Clock::time_point phaseStart) {
        tracker_.complete(phase);
        const auto now = Clock::now();
        publish(phase, now);
        return secondsBetween(phaseStart, now);
    }

    RandomFigures randomPhases(const TestFile& file) {
        const std::uint64_t payload = c_.payload.byteCount;
        const std::uint64_t workingSet = std::min(payload, randomPhaseWorkingSetLimit);
        const std::uint64_t block = std::min<std::uint64_t>(payload, randomBlockSize);
        if (payload == 0) return {};

        auto handle = open(FileAccess::updating, file);
        checked(handle->truncate(workingSet), TestError::temporaryFileCreationFailed, "sizing the random file");
        const bool direct = cacheMode() == CacheMode::direct;
        if (direct) layOut(*handle, workingSet);

        // One buffer of system randomness, written by every random write; offsets come from a
        // generator seeded by the system, drawn without bias over every byte offset.
        // Direct I/O wants offsets on block boundaries; otherwise any byte offset is drawn.
        std::random_device system;
        IoBuffer buffer(randomBlockSize);
        fillWithRandomBytes(buffer, system);
        std::seed_seq seed{system(), system(), system(), system()};
        std::mt19937_64 generator(seed);
        const std::uint64_t granule = direct ? kDirectIoAlignment : 1;
        std::uniform_int_distribution<std::uint64_t> offsets(0, (workingSet - block) / granule);
        const auto nextOffset = [&]() -> std::uint64_t {
            return payload > randomBlockSize ? offsets(generator) * granule : 0;
        };
        const auto phaseLength = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(c_.parameters.randomPhaseDuration));
        const std::span<const std::byte> data = buffer.bytes(block);

        RandomFigures figures;
        started(BenchmarkPhase::randomWrite);
        auto phaseStart = Clock::now();
        figures.writeCount = repeatFor(BenchmarkPhase::randomWrite, phaseStart, phaseLength, block, [&] {
            const std::uint64_t offset = nextOffset();
            checked(handle->seek(offset), TestError::fileHandleUnavailable, "seeking in the random file");
            writeAt(*handle, offset, data, "a random write");
        });
        checked(handle->synchronize(), TestError::writeFailed, "flushing the random writes");
        const double writeDuration = completePhase(BenchmarkPhase::randomWrite, phaseStart);
        (void)handle->close();
        finished(BenchmarkPhase::randomWrite, figures.writeCount * block);

        handle = open(FileAccess::reading, file);
        IoBuffer readBuffer(randomBlockSize);
        const std::span<std::byte> target = readBuffer.target(block);
        started(BenchmarkPhase::randomRead);
        phaseStart = Clock::now();
        figures.readCount = repeatFor(BenchmarkPhase::randomRead, phaseStart, phaseLength, block, [&] {
            checked(handle->seek(nextOffset()), TestError::fileHandleUnavailable, "seeking in the random file");
            if (checked(handle->read(target), TestError::readFailed, "a random read") != block)
                failShortRead("a random read");
        });
        const double readDuration = completePhase(BenchmarkPhase::randomRead, phaseStart);
        finished(BenchmarkPhase::randomRead, figures.readCount * block);

        constexpr double epsilon = std::numeric_limits<double>::epsilon();
        figures.writeIOPS = static_cast<double>(figures.writeCount) / std::max(writeDuration, epsilon);
        figures.readIOPS = static_cast<double>(figures.readCount) / std::max(readDuration, epsilon);
        (void)handle->close();
        return figures;
    }

    // The sequential loop shared by both directions: `transfer` moves one chunk or throws.
    template <class Transfer>
    SequentialFigures sequential(BenchmarkPhase phase, TimelineSample::Phase samplePhase, Transfer&& transfer) {
        TimelineSampler sampler(samplePhase);
        std::uint64_t remaining = c_.payload.byteCount;
        while (remaining > 0) {
            const std::uint64_t chunk = std::min<std::uint64_t>(remaining, sequentialBlockSize);
            const auto chunkStart = Clock::now();
            transfer(static_cast<std::size_t>(chunk));
            const auto now = Clock::now();
            sampler.feed(chunk, secondsBetween(chunkStart, now), secondsBetween(runStart_, now));
            remaining -= chunk;
            tracker_.advance(phase, static_cast<double>(chunk));
            if (tracker_.shouldPublish(now)) publish(phase, now);
            checkCancellation();
        }
        sampler.finish(secondsBetween(runStart_, Clock::now()));
        SequentialFigures figures;
        figures.maximum = sampler.maximumThroughput();
        figures.samples = sampler.takeSamples();
        return figures;
    }

    void finishPhase(BenchmarkPhase phase, Clock::time_point phaseStart, SequentialFigures& figures) {
        figures.duration = completePhase(phase, phaseStart);
        figures.throughput = figures.duration > 0 ? static_cast<double>(c_.payload.byteCount) / figures.duration : 0.0;
    }

    SequentialFigures sequentialWrite(const TestFile& file) {
        auto handle = open(FileAccess::writing, file);
        const IoBuffer zeros(
            static_cast<std::size_t>(std::min<std::uint64_t>(c_.payload.byteCount, sequentialBlockSize)));
        if (cacheMode() == CacheMode::direct) {
            checked(handle->synchronize(), TestError::writeFailed, "committing the sequential file");
        }
        started(BenchmarkPhase::sequentialWrite);
        const auto phaseStart = Clock::now();
        std::uint64_t offset = 0;
        auto figures = sequential(BenchmarkPhase::sequentialWrite, TimelineSample::Phase::sequentialWrite,
                                  [&](std::size_t chunk) {
                                      writeAt(*handle, offset, zeros.bytes(chunk), "a sequential write");
                                      offset += chunk;
                                  });
        checked(handle->synchronize(), TestError::writeFailed, "flushing the sequential file");
        finishPhase(BenchmarkPhase::sequentialWrite, phaseStart, figures);
        (void)handle->close();
        finished(BenchmarkPhase::sequentialWrite, c_.payload.byteCount);
        return figures;
    }

    SequentialFigures sequentialRead(const TestFile& file) {
        auto handle = open(FileAccess::reading, file);
        IoBuffer buffer(static_cast<std::size_t>(std::min<std::uint64_t>(c_.payload.byteCount, sequentialBlockSize)));
        started(BenchmarkPhase::sequentialRead);
        const auto phaseStart = Clock::now();
        auto figures = sequential(
            BenchmarkPhase::sequentialRead, TimelineSample::Phase::sequentialRead, [&](std::size_t chunk) {
                if (checked(handle->read(buffer.target(chunk)), TestError::readFailed, "a sequential read") != chunk) {
                    failShortRead("a sequential read");
                }
            });
        finishPhase(BenchmarkPhase::sequentialRead, phaseStart, figures);
        (void)handle->close();
        finished(BenchmarkPhase::sequentialRead, c_.payload.byteCount);
        return figures;
    }

    // The queue-depth test: the file is laid out, then each profile is read and afterwards each is
    // written, every job for the same fixed time.
    Result performQueueDepth() {
        runStart_ = Clock::now();
        checkCancellation();
        std::vector<QueueDepthFigure> figures = withTestFile(
            "Vantorix_IO_QueueTest_", c_.payload.byteCount,
            [this](const TestFile& file) { return queueDepthProfiles(file); });

        const auto& sequential = figures.at(0);
        const auto& random = figures.at(3);  // random 4 KiB at depth 1, as in the standard test
        Result result;
        result.id = Uuid::make();
        result.dataSize = c_.dataSize;
        result.actualByteCount = c_.payload.byteCount;
        result.isPayloadAdjusted = c_.payload.isAdjusted;
        result.writeDuration = c_.mode.secondsPerProfile;
        result.writeThroughput = sequential.writeBytesPerSecond;
        result.readDuration = c_.mode.secondsPerProfile;
        result.readThroughput = sequential.readBytesPerSecond;
        result.randomWriteIOPS = random.writeIOPS;
        result.randomReadIOPS = random.readIOPS;
        result.randomBlockSize = randomBlockSize;
        result.randomOperationCount = static_cast<std::int64_t>(
            std::llround(std::min(random.writeIOPS, random.readIOPS) * c_.mode.secondsPerProfile));
        for (const auto& figure : figures) {
            if (figure.profile.rfind("SEQ", 0) != 0) continue;
            result.maximumWriteThroughput = std::max(result.maximumWriteThroughput, figure.writeBytesPerSecond);
            result.maximumReadThroughput = std::max(result.maximumReadThroughput, figure.readBytesPerSecond);
        }
        result.queueDepthFigures = std::move(figures);
        result.finishedAt = std::chrono::system_clock::now();
        return result;
    }

    // The test file opened for queued I/O, sized and committed.
    std::unique_ptr<QueuedFile> openQueued(const TestFile& testFile) {
        auto opened = c_.folder->openQueued(testFile.name);
        if (!opened) {
            const int code = opened.error().code;
            if (code == EINVAL) throw TestError(TestError::directIoUnsupported);
            if (code == ENOSYS || code == EPERM || code == EOPNOTSUPP) throw TestError(TestError::queuedIoUnavailable);
            fail(TestError::fileHandleUnavailable, "opening the queued test file", opened.error());
        }
        std::unique_ptr<QueuedFile> file = std::move(opened).value();
        checked(file->truncate(c_.payload.byteCount), TestError::temporaryFileCreationFailed, "sizing the test file");
        // As for the random file's layout: space freed just before becomes usable once committed.
        checked(file->synchronize(), TestError::temporaryFileCreationFailed, "committing the new test file");
        return file;
    }

    // Where a queue-depth test is: the file its jobs run on, the step under way, and whether a job
    // found the volume gone.
    struct QueueSteps {
        QueuedFile& file;
        std::size_t index = 0;
        bool volumeGone = false;
    };

    // Publishes the progress of the step under way, `stepFraction` of it done.
    void reportStep(ProgressState& progress, std::size_t stepIndex, double stepFraction, Clock::time_point now) {
        reportFraction(progress,
                       (static_cast<double>(stepIndex) + std::clamp(stepFraction, 0.0, 1.0)) / kQueueDepthSteps, now);
    }

    // Publishes the progress of a queued test, `fraction` of it done, with the time left at the
    // pace so far.
    void reportFraction(ProgressState& progress, double fraction, Clock::time_point now) {
        progress.fractionCompleted = std::clamp(fraction, 0.0, 1.0);
        progress.elapsedTime = secondsBetween(runStart_, now);
        progress.estimatedRemainingTime.reset();
        if (progress.fractionCompleted > 0) {
            progress.estimatedRemainingTime = progress.elapsedTime * (1 - progress.fractionCompleted) /
                                              progress.fractionCompleted;
        }
        lastQueuePublish_ = now;
        c_.main->post(weakly(c_.tester, [token = c_.token, progress](DiskPerformanceTester& tester) {
            tester.publishProgress(token, progress);
        }));
    }

    // Runs one job as one step of the progress, which moves by bytes while the file is laid out and
    // by time while a profile runs. A job stops early when the volume went away.
    QueuedFigures runStep(QueueSteps& steps, const QueuedJob& job, std::size_t profile, bool write) {
        ProgressState progress;
        progress.phase = phaseOfStep(profile, write);
        progress.stepName = queueDepthStepName(profile, write);
        const auto stepStart = Clock::now();
        reportStep(progress, steps.index, 0, stepStart);
        const auto runJob = [&] {
            return steps.file.run(
                job, [&] { return steps.volumeGone || cancellation_.isCancelled(); },
                [&](std::uint64_t bytes) {
                    const auto now = Clock::now();
                    if (secondsBetween(lastQueuePublish_, now) < ProgressTracker::kPublishInterval) return;
                    steps.volumeGone = !c_.folder->isInPlace();
                    reportStep(progress, steps.index,
                               job.byteLimit ? static_cast<double>(bytes) / static_cast<double>(*job.byteLimit)
                                             : secondsBetween(stepStart, now) / c_.mode.secondsPerProfile,
                               now);
                });
        };
        auto figures = runJob();
        // Laying out the file allocates: as for the standard test's writes, a full file system is
        // asked once more after the removals before are committed.
        if (!figures && figures.error().code == ENOSPC && job.byteLimit && !cancellation_.isCancelled()) {
            (void)c_.folder->commitRemovals();
            figures = runJob();
        }
        checkCancellation();
        if (steps.volumeGone) checkInPlace();
        if (!figures)
            fail(write ? TestError::writeFailed : TestError::readFailed, progress.stepName.value_or("a queued job"),
                 figures.error());
        ++steps.index;
        reportStep(progress, steps.index, 0, Clock::now());
        return figures.value();
    }

    std::vector<QueueDepthFigure> queueDepthProfiles(const TestFile& testFile) {
        const std::unique_ptr<QueuedFile> file = openQueued(testFile);
        const std::uint64_t size = c_.payload.byteCount;
        const auto duration = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(c_.mode.secondsPerProfile));
        QueueSteps steps{*file};
        (void)runStep(steps, layoutJob(size), kQueueDepthProfiles.size(), true);

        // Every profile starts from a quiet device, outside its clock: what the jobs before it
        // wrote is made durable, and the layers below (a drive's cache, a virtual disk's host,
        // a loop device's backing file) get a moment to drain, so no profile pays for another.
        const auto rest = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::min(kQueueDepthRestSeconds, c_.mode.secondsPerProfile / 5)));
        const auto settle = [&] {
            checked(file->synchronize(), TestError::writeFailed, "flushing the queued test file");
            checkInPlace();
            if (!cancellation_.sleepFor(rest)) throw RunCancelled{};
        };

        std::vector<QueueDepthFigure> figures;
        figures.reserve(kQueueDepthProfiles.size());
        for (const auto& profile : kQueueDepthProfiles) figures.push_back({profile.name, 0, 0, 0, 0});
        for (const bool write : {false, true}) {
            for (std::size_t i = 0; i < kQueueDepthProfiles.size(); ++i) {
                const QueuedJob job = profileJob(kQueueDepthProfiles[i], write, size, duration);
                settle();
                recordProfile(figures[i], runStep(steps, job, i, write), write);
            }
        }
        checked(file->synchronize(), TestError::writeFailed, "flushing the queued test file");
        (void)file->close();
        checkInPlace();
        return figures;
    }

    // The sustained-write test: one file written sequentially until its size or until the speed
    // has held steady after a cliff (see analyzeSustainedWrite), with a point every 256 MiB.
    Result performSustainedWrite() {
        runStart_ = Clock::now();
        checkCancellation();
        SustainedWriteFigures figures = withTestFile("Vantorix_IO_SustainedTest_", c_.payload.byteCount,
                                                     [this](const TestFile& file) { return sustainedWrite(file); });

        Result result = resultOfThisRun();
        result.actualByteCount = figures.bytesWritten;
        result.writeDuration = figures.seconds;
        result.writeThroughput = figures.averageBytesPerSecond;
        result.maximumWriteThroughput = figures.maximumBytesPerSecond;
        for (const auto& point : figures.points) {
            result.timeline.push_back({Uuid::make(), TimelineSample::Phase::sequentialWrite, point.seconds,
                                       point.bytesWritten, point.bytesPerSecond});
        }
        result.sustained = std::move(figures);
        result.finishedAt = std::chrono::system_clock::now();
        return result;
    }

    // A result that says which run it is and what its size was; its figures are to be filled in.
    Result resultOfThisRun() const {
        Result result;
        result.id = Uuid::make();
        result.dataSize = c_.dataSize;
        result.actualByteCount = c_.payload.byteCount;
        result.isPayloadAdjusted = c_.payload.isAdjusted;
        result.randomBlockSize = randomBlockSize;
        return result;
    }

    SustainedWriteFigures sustainedWrite(const TestFile& testFile) {
        const std::unique_ptr<QueuedFile> file = openQueued(testFile);
        const std::uint64_t size = c_.payload.byteCount;
        // The temperature is read on the sampler's thread; a point takes the last reading.
        const TemperatureSampler temperatures(c_.temperatureProbe, c_.deviceName);
        std::vector<SustainedPoint> points;
        std::uint64_t nextPoint = kSustainedStepBytes;
        bool steady = false;
        bool volumeGone = false;
        ProgressState progress;
        progress.phase = BenchmarkPhase::sequentialWrite;
        progress.stepName = sustainedStepName();
        started(BenchmarkPhase::sequentialWrite);
        const auto start = Clock::now();
        reportFraction(progress, 0, start);
        const auto addPoint = [&](std::uint64_t bytes, Clock::time_point now) {
            const double seconds = secondsBetween(start, now);
            const double stepSeconds = seconds - (points.empty() ? 0.0 : points.back().seconds);
            const std::uint64_t stepBytes = bytes - (points.empty() ? 0 : points.back().bytesWritten);
            points.push_back({bytes, seconds, stepSeconds > 0 ? static_cast<double>(stepBytes) / stepSeconds : 0.0,
                              temperatures.latest()});
        };
        auto written = file->run(
            layoutJob(size), [&] { return steady || volumeGone || cancellation_.isCancelled(); },
            [&](std::uint64_t bytes) {
                const auto now = Clock::now();
                if (bytes >= nextPoint) {
                    addPoint(bytes, now);
                    while (nextPoint <= bytes) nextPoint += kSustainedStepBytes;
                    steady = analyzeSustainedWrite(points).steadyAfterCliff;
                }
                if (secondsBetween(lastQueuePublish_, now) < ProgressTracker::kPublishInterval) return;
                volumeGone = !c_.folder->isInPlace();
                reportFraction(progress, static_cast<double>(bytes) / static_cast<double>(size), now);
            });
        checkCancellation();
        if (volumeGone) checkInPlace();
        if (!written) fail(TestError::writeFailed, "the sustained write", written.error());
        const std::uint64_t bytes = written.value().bytes;
        const auto end = Clock::now();
        // The last step, short of 256 MiB, is a point too.
        if (points.empty() || points.back().bytesWritten < bytes) addPoint(bytes, end);
        // Direct writes are on the device once they complete: the speed is the writing's, and the
        // flush that follows (of a drive's volatile cache, far smaller than the file) is not timed.
        checked(file->synchronize(), TestError::writeFailed, "flushing the sustained test file");
        (void)file->close();
        finished(BenchmarkPhase::sequentialWrite, bytes);
        reportFraction(progress, 1, Clock::now());
        checkInPlace();
        return sustainedWriteFigures(std::move(points), bytes, secondsBetween(start, end), steady);
    }

    Context c_;
    CancellationToken cancellation_;
    std::unique_ptr<BlockStatisticsFile> counters_;
    std::optional<BlockStatistics> phaseStartCounters_;
    std::vector<PhaseTraffic> traffic_;
    Clock::time_point lastQueuePublish_;
    ProgressTracker tracker_;
    Clock::time_point runStart_;
};

std::shared_ptr<DiskPerformanceTester> DiskPerformanceTester::create(Dependencies dependencies) {
    return create(std::move(dependencies), Parameters());
}

std::shared_ptr<DiskPerformanceTester> DiskPerformanceTester::create(Dependencies dependencies, Parameters parameters) {
    return std::shared_ptr<DiskPerformanceTester>(new DiskPerformanceTester(std::move(dependencies), parameters));
}

DiskPerformanceTester::DiskPerformanceTester(Dependencies dependencies, Parameters parameters)
    : dependencies_(std::move(dependencies)),
      parameters_(parameters),
      cleanupQueue_(std::make_shared<SerialQueue>("com.vantorix.performanceTester.cleanup", QualityOfService::utility)),
      automaticExportQueue_(
          std::make_shared<SerialQueue>("com.vantorix.performanceTester.export", QualityOfService::utility)) {}

DiskPerformanceTester::~DiskPerformanceTester() {
    // A task still running keeps what it uses alive and hands its files to the cleanup queue,
    // which outlives it; nothing waits here.
    current_.task.cancel();
}

void DiskPerformanceTester::setDataSize(const DataSize& size) {
    state_.update([&](State& state) { state.dataSize = size; });
}

void DiskPerformanceTester::setTestMode(const TestMode& mode) {
    state_.update([&](State& state) { state.testMode = mode; });
}

std::optional<EffectivePayload> DiskPerformanceTester::payloadPreview(
    const std::optional<DiskVolumeDescriptor>& volume) const {
    if (!volume) return std::nullopt;
    if (state().testMode.kind == TestKind::sustainedWrite) return sustainedPayload(*volume);
    std::optional<EffectivePayload> payload;
    if (parameters_.payloadBytes) {
        if (volume->availableCapacityBytes && *parameters_.payloadBytes > *volume->availableCapacityBytes) {
            return std::nullopt;
        }
        payload = EffectivePayload{*parameters_.payloadBytes, false};
    } else {
        payload = effectivePayload(state().dataSize, volume->availableCapacityBytes);
    }
    if (!payload) return payload;
    // Direct I/O moves whole blocks: the payload is rounded down to them, and the queue-depth
    // test's file to whole 1 MiB blocks within its limit.
    const TestMode& mode = state().testMode;
    std::uint64_t granule = mode.usesDirectIo() ? kDirectIoAlignment : 1;
    if (mode.kind == TestKind::queueDepth) {
        granule = kQueueDepthProfiles[0].blockSize;
        payload->byteCount = std::min(payload->byteCount, queueDepthFileLimit);
    }
    payload->byteCount -= payload->byteCount % granule;
    if (payload->byteCount == 0 && mode.usesDirectIo()) return std::nullopt;
    return payload;
}

std::optional<EffectivePayload> DiskPerformanceTester::sustainedPayload(const DiskVolumeDescriptor& volume) const {
    std::optional<std::uint64_t> requested = parameters_.payloadBytes;
    const DataSize& size = state().dataSize;
    if (!requested && !size.isAvailableSpace()) {
        requested = static_cast<std::uint64_t>(size.gigabyteCount()) * DataSize::kGigabyte;
    }
    const auto bytes = sustainedFileSize(requested, volume.availableCapacityBytes);
    if (!bytes) return std::nullopt;
    return EffectivePayload{*bytes, false};
}

::vantorix::Result<EffectivePayload, TestError> DiskPerformanceTester::payloadFor(const DiskVolumeDescriptor& volume,
                                                                                  Directory& folder) const {
    auto payload = payloadPreview(std::optional(volume));
    std::optional<std::uint64_t> available = volume.availableCapacityBytes;
    if (!payload) {
        // The free space the volume reported may leave out what test files removed just before
        // are about to give back: an earlier run's removals still uncommitted, or its files still
        // open in a run that is winding down after a stop. Both count.
        const std::uint64_t held = bytesHeldByEarlierRuns(volume);
        (void)folder.commitRemovals();
        if (const auto fresh = folder.availableBytes()) {
            DiskVolumeDescriptor now = volume;
            now.availableCapacityBytes = *fresh + std::min(held, std::numeric_limits<std::uint64_t>::max() - *fresh);
            available = now.availableCapacityBytes;
            payload = payloadPreview(now);
        }
    }
    if (!payload) {
        const DataSize& size = state().dataSize;
        const std::uint64_t needed = parameters_.payloadBytes ? *parameters_.payloadBytes
                                     : size.isAvailableSpace()
                                         ? DataSize::kGigabyte
                                         : static_cast<std::uint64_t>(size.gigabyteCount()) * DataSize::kGigabyte;
        return Failure{TestError(TestError::insufficientFreeSpace,
                                 available && *available < needed ? spaceShortfall(needed, *available, false) : "")};
    }
    return *payload;
}

void DiskPerformanceTester::runTest(const std::optional<DiskVolumeDescriptor>& volume) {
    if (state().isRunning) return;
    const auto refuse = [this](const TestError& error) {
        state_.update([&](State& state) { state.errorMessage = error.description(); });
    };
    if (!volume) return refuse(TestError(TestError::volumeUnavailable));
    // The run works in the folder it opens here, on the volume it opens it on, to its end.
    auto opened = dependencies_.files->openDirectory(volume->url, volume->deviceName);
    if (!opened) {
        const int code = opened.error().code;
        return refuse(code == ENODEV ? TestError(TestError::volumeWentAway)
                                     : TestError::because(TestError::temporaryFileCreationFailed, code));
    }
    std::shared_ptr<Directory> folder = std::move(opened).value();
    auto payload = payloadFor(*volume, *folder);
    if (!payload) return refuse(payload.error());

    state_.update([&](State& state) {
        state.isRunning = true;
        state.progressState = ProgressState{};
        if (state.testMode.kind != TestKind::standard) {
            state.progressState->phase = BenchmarkPhase::sequentialWrite;
            state.progressState->stepName = state.testMode.kind == TestKind::queueDepth
                                                ? queueDepthStepName(kQueueDepthProfiles.size(), true)
                                                : sustainedStepName();
        }
        state.errorMessage.reset();
        state.automaticReportMessage.reset();
        state.automaticReportMessageToken = Uuid::make();
        state.lastTestVolume = volume;
    });
    const Uuid token = Uuid::make();
    activeTestToken_ = token;

    auto heldBytes = std::make_shared<std::atomic<std::uint64_t>>(0);
    Run::Context context{weak_from_this(),
                         dependencies_.mainExecutor,
                         folder,
                         temporaryFiles_,
                         cleanupQueue_,
                         turn_,
                         heldBytes,
                         observer_,
                         parameters_,
                         state().dataSize,
                         state().testMode,
                         *payload,
                         token,
                         dependencies_.devices,
                         volume->deviceName,
                         dependencies_.temperatureProbe,
                         dependencies_.history,
                         driveOf(*volume)};
    retire(std::exchange(current_, {}));
    current_.volumeRoot = volume->mountPoint;
    current_.heldBytes = std::move(heldBytes);
    current_.task = Task("performanceTest", QualityOfService::userInitiated,
                         [context = std::move(context)](const CancellationToken& cancellation) mutable {
                             Run(std::move(context), cancellation)();
                         });
}

void DiskPerformanceTester::stopTest() {
    if (!state().isRunning) return;
    current_.task.cancel();
    retire(std::exchange(current_, {}));
    activeTestToken_.reset();
    state_.update([](State& state) {
        state.isRunning = false;
        state.progressState.reset();
    });
    // Whatever the run has registered so far goes now; a file it registers later is removed by
    // the run itself when it notices the cancellation, as is a file it still has open now. A
    // removal that fails is registered again for the next stop.
    cleanupQueue_->async([registry = temporaryFiles_] {
        for (const auto& file : registry->takeAll()) {
            if (!file.folder->exists(file.name)) continue;
            if (file.folder->remove(file.name)) (void)file.folder->commitRemovals();
            else registry->add(file);
        }
    });
}

void DiskPerformanceTester::waitForBackgroundWork() {
    current_.task.join();
    for (auto& run : retired_) run.task.join();
    retired_.clear();
    cleanupQueue_->sync([] {});
    automaticExportQueue_->sync([] {});
}

void DiskPerformanceTester::retire(RunRecord run) {
    std::erase_if(retired_, [](const RunRecord& r) { return r.task.isFinished() && r.heldBytes->load() == 0; });
    if (run.task.valid()) retired_.push_back(std::move(run));
}

health::DriveIdentity DiskPerformanceTester::driveOf(const DiskVolumeDescriptor& volume) const {
    if (!dependencies_.history || !dependencies_.devices) return {};
    auto device = dependencies_.devices->device(volume.deviceName);
    return device ? driveIdentity(device.value()) : health::DriveIdentity{};
}

std::uint64_t DiskPerformanceTester::bytesHeldByEarlierRuns(const DiskVolumeDescriptor& volume) const {
    std::uint64_t held = 0;
    for (const auto& run : retired_) {
        if (run.volumeRoot == volume.mountPoint) held += run.heldBytes->load();
    }
    return held;
}

void DiskPerformanceTester::publishProgress(const Uuid& token, const ProgressState& progress) {
    if (activeTestToken_ != token) return;
    state_.update([&](State& state) { state.progressState = progress; });
}

void DiskPerformanceTester::deliver(const Uuid& token, Outcome outcome, std::optional<Result> result,
                                    std::string message, std::shared_ptr<Directory> folder) {
    if (activeTestToken_ != token) return;
    activeTestToken_.reset();
    retire(std::exchange(current_, {}));
    state_.update([&](State& state) {
        state.isRunning = false;
        state.progressState.reset();
        switch (outcome) {
            case Outcome::success:
                state.errorMessage.reset();
                state.lastResult = std::move(result);
                break;
            case Outcome::cancelled: state.errorMessage.reset(); break;
            case Outcome::failed: state.errorMessage = std::move(message); break;
        }
    });
    if (outcome == Outcome::success && state().lastResult && state().lastTestVolume) {
        startAutomaticExport(*state().lastResult, *state().lastTestVolume, std::move(folder));
    }
}

void DiskPerformanceTester::startAutomaticExport(const Result& result, const DiskVolumeDescriptor& volume,
                                                 std::shared_ptr<Directory> folder) {
    automaticExportQueue_->async(
        [weak = weak_from_this(), main = dependencies_.mainExecutor, folder = std::move(folder), result, volume] {
            std::optional<std::string> path;
            std::string message;
            if (!folder->isInPlace()) {
                // Written through the folder's descriptor, the report would land on a volume no one
                // reaches any more.
                message = text::automaticReportExportFailed(TestError(TestError::volumeWentAway).description());
            } else if (auto written = folder->writeNewFileAtomically(report::reportBaseName(result.finishedAt), ".html",
                                                                     report::reportHTML(result, volume))) {
                path = *written;
                message = text::automaticReportSaved(*written);
            } else {
                message = text::automaticReportExportFailed(text::systemErrorText(written.error().code));
            }
            main->post(weakly(weak, [path, message](DiskPerformanceTester& tester) {
                tester.state_.update([&](State& state) {
                    state.automaticReportMessage = message;
                    state.lastReportPath = path;
                });
            }));
        });
}

}  // namespace vantorix
