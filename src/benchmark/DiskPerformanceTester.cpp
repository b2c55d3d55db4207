#include "benchmark/DiskPerformanceTester.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <span>

#include "benchmark/PerformanceReport.h"
#include "benchmark/TestError.h"
#include "concurrency/WeakOwner.h"
#include "log/Log.h"
#include "platform/IoBuffer.h"
#include "platform/QueuedFile.h"
#include "text/Formats.h"
#include "text/Messages.h"

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

const log::Logger& logger() {
    static const log::Logger& instance = log::logger("DiskPerformanceTester");
    return instance;
}

// Logs why a file operation failed (the user sees only the kind) and throws the kind.
[[noreturn]] void fail(TestError::Kind kind, std::string_view what, const FileError& error) {
    logger().error("{} failed: {} (errno {})", what, error.message, error.code);
    throw TestError(kind);
}

template <class T>
T checked(Result<T, FileError> result, TestError::Kind kind, std::string_view what) {
    if (!result) fail(kind, what, result.error());
    return std::move(result).value();
}

std::string joinPath(const std::string& folder, const std::string& name) {
    if (!folder.empty() && folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

// The step a queue-depth test is in, as the progress shows it.
BenchmarkPhase phaseOfStep(std::size_t profile, bool write) {
    if (profile >= kQueueDepthProfiles.size()) return BenchmarkPhase::sequentialWrite;
    const bool sequential = kQueueDepthProfiles[profile].pattern == QueuedJob::Pattern::sequential;
    if (sequential) return write ? BenchmarkPhase::sequentialWrite : BenchmarkPhase::sequentialRead;
    return write ? BenchmarkPhase::randomWrite : BenchmarkPhase::randomRead;
}

// The folder a path lies in.
std::string folderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Removes one test file if it is there (a failure is ignored) and forgets it. The removal is
// committed, so that its space is free for the next file laid out, in this run or the next.
void removeTestFile(FileSystem& files, TemporaryFileRegistry& registry, const std::string& path) {
    if (files.exists(path) && files.remove(path)) (void)files.commitRemovals(folderOf(path));
    registry.remove(path);
}

}  // namespace

// One run on the task's thread: the four phases, from file creation to the assembled result.
// Failures are thrown as TestError, cancellation as RunCancelled.
class DiskPerformanceTester::Run {
public:
    struct Context {
        std::weak_ptr<DiskPerformanceTester> tester;
        std::shared_ptr<MainExecutor> main;
        std::shared_ptr<FileSystem> files;
        std::shared_ptr<TemporaryFileRegistry> registry;
        std::shared_ptr<SerialQueue> cleanupQueue;
        PhaseObserver observer;
        Parameters parameters;
        DiskVolumeDescriptor volume;
        DataSize dataSize = DataSize::availableSpace();
        TestMode mode;
        EffectivePayload payload;
        Uuid token;
    };

    Run(Context context, CancellationToken cancellation)
        : c_(std::move(context)), cancellation_(std::move(cancellation)),
          tracker_({0, 0, static_cast<double>(c_.payload.byteCount), static_cast<double>(c_.payload.byteCount)}) {}

    void operator()() {
        Outcome outcome = Outcome::success;
        std::optional<Result> result;
        std::string message;
        try {
            result = c_.mode.kind == TestKind::queueDepth ? performQueueDepth() : perform();
            result->mode = c_.mode;
        } catch (const RunCancelled&) {
            outcome = Outcome::cancelled;
        } catch (const TestError& error) {
            outcome = Outcome::failed;
            message = error.description();
        } catch (const std::exception& error) {
            outcome = Outcome::failed;
            message = error.what();
        }
        c_.main->post(weakly(c_.tester, [token = c_.token, outcome, result = std::move(result),
                                         message = std::move(message)](DiskPerformanceTester& tester) mutable {
            tester.deliver(token, outcome, std::move(result), std::move(message));
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
        // Files removed just before (an earlier run's, the user's) give their space back only once
        // the removal is committed; the payload was sized with that space.
        (void)c_.files->commitRemovals(c_.volume.url);

        const std::string randomPath = createTestFile("Vantorix_IO_RandomTest_");
        RandomFigures random;
        try {
            random = randomPhases(randomPath);
        } catch (...) {
            handToCleanup(randomPath);
            throw;
        }
        // The random file is gone, and the file system has committed its removal (with online
        // discard, trimming its blocks), before the sequential phases start: its space is the
        // sequential file's, and the write should not pay for the previous phase.
        handToCleanup(randomPath);
        c_.cleanupQueue->sync([] {});

        const std::string sequentialPath = createTestFile("Vantorix_IO_Test_");
        SequentialFigures write;
        SequentialFigures read;
        try {
            write = sequentialWrite(sequentialPath);
            read = sequentialRead(sequentialPath);
        } catch (...) {
            handToCleanup(sequentialPath);
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
        result.finishedAt = std::chrono::system_clock::now();
        handToCleanup(sequentialPath);
        return result;
    }

    void checkCancellation() const {
        if (cancellation_.isCancelled()) throw RunCancelled{};
    }

    std::string createTestFile(const std::string& prefix) {
        const std::string path = joinPath(c_.volume.url, prefix + Uuid::make().text());
        if (!c_.files->createEmptyFile(path)) throw TestError(TestError::temporaryFileCreationFailed);
        c_.registry->add(path);
        return path;
    }

    void handToCleanup(const std::string& path) {
        c_.cleanupQueue->async([files = c_.files, registry = c_.registry, path] { removeTestFile(*files, *registry, path); });
    }

    CacheMode cacheMode() const { return c_.mode.bypassCache ? CacheMode::direct : CacheMode::buffered; }

    std::unique_ptr<FileHandle> open(FileAccess access, const std::string& path) {
        auto handle = c_.files->open(path, access, cacheMode());
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
            checked(handle.write(zeros.bytes(static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, length - offset)))),
                    TestError::writeFailed, "laying out the random file");
        }
        checked(handle.synchronize(), TestError::writeFailed, "flushing the random file");
    }

    void publish(BenchmarkPhase phase, Clock::time_point now) {
        const ProgressState progress = tracker_.snapshot(phase, runStart_, now);
        c_.main->post(weakly(c_.tester, [token = c_.token, progress](DiskPerformanceTester& tester) {
            tester.publishProgress(token, progress);
        }));
    }

    void started(BenchmarkPhase phase) {
        if (c_.observer.started) c_.observer.started(phase);
    }
    void finished(BenchmarkPhase phase, std::uint64_t bytes) {
        if (c_.observer.finished) c_.observer.finished(phase, bytes);
    }

    RandomFigures randomPhases(const std::string& path) {
        const std::uint64_t payload = c_.payload.byteCount;
        const std::uint64_t workingSet = std::min(payload, randomPhaseWorkingSetLimit);
        const std::uint64_t block = std::min<std::uint64_t>(payload, randomBlockSize);
        if (payload == 0) {
            handToCleanup(path);
            return {};
        }

        auto handle = open(FileAccess::updating, path);
        if (!handle->truncate(workingSet)) {
            (void)handle->close();
            throw TestError(TestError::temporaryFileCreationFailed);
        }
        const bool direct = cacheMode() == CacheMode::direct;
        if (direct) layOut(*handle, workingSet);

        // One buffer of system randomness, written by every random write; offsets come from a
        // generator seeded by the system, drawn without bias over every byte offset.
        // Direct I/O wants offsets on block boundaries; otherwise any byte offset is drawn.
        std::random_device system;
        IoBuffer buffer(randomBlockSize);
        for (std::size_t i = 0; i < randomBlockSize; i += sizeof(unsigned)) {
            const unsigned word = system();
            for (std::size_t j = 0; j < sizeof(unsigned); ++j) buffer.data()[i + j] = static_cast<std::byte>(word >> (8 * j));
        }
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
        auto deadline = phaseStart + phaseLength;
        for (auto now = phaseStart; now < deadline;) {
            checkCancellation();
            checked(handle->seek(nextOffset()), TestError::fileHandleUnavailable, "seeking in the random file");
            checked(handle->write(data), TestError::writeFailed, "a random write");
            ++figures.writeCount;
            tracker_.advance(BenchmarkPhase::randomWrite, static_cast<double>(block));
            now = Clock::now();
            if (tracker_.shouldPublish(now) || now >= deadline) publish(BenchmarkPhase::randomWrite, now);
        }
        checked(handle->synchronize(), TestError::writeFailed, "flushing the random writes");
        tracker_.complete(BenchmarkPhase::randomWrite);
        auto now = Clock::now();
        publish(BenchmarkPhase::randomWrite, now);
        const double writeDuration = secondsBetween(phaseStart, now);
        (void)handle->close();
        finished(BenchmarkPhase::randomWrite, figures.writeCount * block);

        handle = open(FileAccess::reading, path);
        IoBuffer readBuffer(randomBlockSize);
        const std::span<std::byte> target = readBuffer.target(block);
        started(BenchmarkPhase::randomRead);
        phaseStart = Clock::now();
        deadline = phaseStart + phaseLength;
        for (now = phaseStart; now < deadline;) {
            checkCancellation();
            checked(handle->seek(nextOffset()), TestError::fileHandleUnavailable, "seeking in the random file");
            if (checked(handle->read(target), TestError::readFailed, "a random read") != block) {
                fail(TestError::readFailed, "a random read", FileError{ENODATA, "short read"});
            }
            ++figures.readCount;
            tracker_.advance(BenchmarkPhase::randomRead, static_cast<double>(block));
            now = Clock::now();
            if (tracker_.shouldPublish(now) || now >= deadline) publish(BenchmarkPhase::randomRead, now);
        }
        tracker_.complete(BenchmarkPhase::randomRead);
        now = Clock::now();
        publish(BenchmarkPhase::randomRead, now);
        const double readDuration = secondsBetween(phaseStart, now);
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
        tracker_.complete(phase);
        const auto now = Clock::now();
        publish(phase, now);
        figures.duration = secondsBetween(phaseStart, now);
        figures.throughput =
            figures.duration > 0 ? static_cast<double>(c_.payload.byteCount) / figures.duration : 0.0;
    }

    SequentialFigures sequentialWrite(const std::string& path) {
        auto handle = open(FileAccess::writing, path);
        const IoBuffer zeros(static_cast<std::size_t>(
            std::min<std::uint64_t>(c_.payload.byteCount, sequentialBlockSize)));
        if (cacheMode() == CacheMode::direct) {
            checked(handle->synchronize(), TestError::writeFailed, "committing the sequential file");
        }
        started(BenchmarkPhase::sequentialWrite);
        const auto phaseStart = Clock::now();
        auto figures = sequential(BenchmarkPhase::sequentialWrite, TimelineSample::Phase::sequentialWrite,
                                  [&](std::size_t chunk) {
                                      checked(handle->write(zeros.bytes(chunk)), TestError::writeFailed, "a sequential write");
                                  });
        checked(handle->synchronize(), TestError::writeFailed, "flushing the sequential file");
        finishPhase(BenchmarkPhase::sequentialWrite, phaseStart, figures);
        (void)handle->close();
        finished(BenchmarkPhase::sequentialWrite, c_.payload.byteCount);
        return figures;
    }

    SequentialFigures sequentialRead(const std::string& path) {
        auto handle = open(FileAccess::reading, path);
        IoBuffer buffer(static_cast<std::size_t>(
            std::min<std::uint64_t>(c_.payload.byteCount, sequentialBlockSize)));
        started(BenchmarkPhase::sequentialRead);
        const auto phaseStart = Clock::now();
        auto figures = sequential(BenchmarkPhase::sequentialRead, TimelineSample::Phase::sequentialRead,
                                  [&](std::size_t chunk) {
                                      if (checked(handle->read(buffer.target(chunk)), TestError::readFailed, "a sequential read") != chunk) {
                                          fail(TestError::readFailed, "a sequential read", FileError{ENODATA, "short read"});
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
        (void)c_.files->commitRemovals(c_.volume.url);
        const std::string path = createTestFile("Vantorix_IO_QueueTest_");
        std::vector<QueueDepthFigure> figures;
        try {
            figures = queueDepthProfiles(path);
        } catch (...) {
            handToCleanup(path);
            throw;
        }
        handToCleanup(path);

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

    std::vector<QueueDepthFigure> queueDepthProfiles(const std::string& path) {
        auto opened = c_.files->openQueued(path);
        if (!opened) {
            const int code = opened.error().code;
            if (code == EINVAL) throw TestError(TestError::directIoUnsupported);
            if (code == ENOSYS || code == EPERM || code == EOPNOTSUPP) throw TestError(TestError::queuedIoUnavailable);
            fail(TestError::fileHandleUnavailable, "opening the queued test file", opened.error());
        }
        const std::unique_ptr<QueuedFile> file = std::move(opened).value();
        const std::uint64_t size = c_.payload.byteCount;
        checked(file->truncate(size), TestError::temporaryFileCreationFailed, "sizing the test file");
        // As for the random file's layout: space freed just before becomes usable once committed.
        checked(file->synchronize(), TestError::temporaryFileCreationFailed, "committing the new test file");

        constexpr std::size_t kSteps = 1 + 2 * kQueueDepthProfiles.size();
        const auto duration = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(c_.mode.secondsPerProfile));
        std::size_t stepIndex = 0;
        // Runs one job as one step of the progress, which moves by bytes while the file is laid
        // out and by time while a profile runs.
        const auto step = [&](const QueuedJob& job, std::size_t profile, bool write) {
            ProgressState progress;
            progress.phase = phaseOfStep(profile, write);
            progress.stepName = queueDepthStepName(profile, write);
            const auto stepStart = Clock::now();
            const auto report = [&](double stepFraction, Clock::time_point now) {
                progress.fractionCompleted =
                    std::clamp((static_cast<double>(stepIndex) + std::clamp(stepFraction, 0.0, 1.0)) / kSteps, 0.0, 1.0);
                progress.elapsedTime = secondsBetween(runStart_, now);
                progress.estimatedRemainingTime.reset();
                if (progress.fractionCompleted > 0) {
                    progress.estimatedRemainingTime =
                        progress.elapsedTime * (1 - progress.fractionCompleted) / progress.fractionCompleted;
                }
                lastQueuePublish_ = now;
                c_.main->post(weakly(c_.tester, [token = c_.token, progress](DiskPerformanceTester& tester) {
                    tester.publishProgress(token, progress);
                }));
            };
            report(0, stepStart);
            auto figures = file->run(
                job, [this] { return cancellation_.isCancelled(); },
                [&](std::uint64_t bytes) {
                    const auto now = Clock::now();
                    if (secondsBetween(lastQueuePublish_, now) < ProgressTracker::kPublishInterval) return;
                    report(job.byteLimit ? static_cast<double>(bytes) / static_cast<double>(*job.byteLimit)
                                         : secondsBetween(stepStart, now) / c_.mode.secondsPerProfile,
                           now);
                });
            checkCancellation();
            if (!figures) fail(write ? TestError::writeFailed : TestError::readFailed, progress.stepName.value_or("a queued job"), figures.error());
            ++stepIndex;
            report(0, Clock::now());
            return figures.value();
        };

        QueuedJob layout;
        layout.pattern = QueuedJob::Pattern::sequential;
        layout.direction = QueuedJob::Direction::write;
        layout.blockSize = 1'048'576;
        layout.queueDepth = 8;
        layout.span = size;
        layout.duration = std::chrono::hours(24 * 365);
        layout.byteLimit = size;
        (void)step(layout, kQueueDepthProfiles.size(), true);

        // Every profile starts from a quiet device, outside its clock: what the jobs before it
        // wrote is made durable, and the layers below (a drive's cache, a virtual disk's host,
        // a loop device's backing file) get a moment to drain, so no profile pays for another.
        const auto rest = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(std::min(kQueueDepthRestSeconds, c_.mode.secondsPerProfile / 5)));
        const auto settle = [&] {
            checked(file->synchronize(), TestError::writeFailed, "flushing the queued test file");
            if (!cancellation_.sleepFor(rest)) throw RunCancelled{};
        };

        std::vector<QueueDepthFigure> figures;
        for (const auto& profile : kQueueDepthProfiles) figures.push_back({profile.name, 0, 0, 0, 0});
        for (const bool write : {false, true}) {
            for (std::size_t i = 0; i < kQueueDepthProfiles.size(); ++i) {
                const auto& profile = kQueueDepthProfiles[i];
                QueuedJob job;
                job.pattern = profile.pattern;
                job.direction = write ? QueuedJob::Direction::write : QueuedJob::Direction::read;
                job.blockSize = profile.blockSize;
                job.queueDepth = profile.queueDepth;
                job.span = size / profile.blockSize * profile.blockSize;
                job.duration = duration;
                settle();
                const QueuedFigures measured = step(job, i, write);
                const double seconds = std::max(measured.seconds, std::numeric_limits<double>::epsilon());
                const double bytesPerSecond = static_cast<double>(measured.bytes) / seconds;
                const double iops = static_cast<double>(measured.operations) / seconds;
                (write ? figures[i].writeBytesPerSecond : figures[i].readBytesPerSecond) = bytesPerSecond;
                (write ? figures[i].writeIOPS : figures[i].readIOPS) = iops;
            }
        }
        checked(file->synchronize(), TestError::writeFailed, "flushing the queued test file");
        (void)file->close();
        return figures;
    }

    Context c_;
    CancellationToken cancellation_;
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
    : dependencies_(std::move(dependencies)), parameters_(parameters),
      cleanupQueue_(std::make_shared<SerialQueue>("com.vantorix.performanceTester.cleanup", QualityOfService::utility)),
      automaticExportQueue_(
          std::make_shared<SerialQueue>("com.vantorix.performanceTester.export", QualityOfService::utility)) {}

DiskPerformanceTester::~DiskPerformanceTester() {
    // A task still running keeps what it uses alive and hands its files to the cleanup queue,
    // which outlives it; nothing waits here.
    currentTestTask_.cancel();
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

void DiskPerformanceTester::runTest(const std::optional<DiskVolumeDescriptor>& volume) {
    if (state().isRunning) return;
    if (!volume) {
        state_.update([](State& state) { state.errorMessage = TestError(TestError::volumeUnavailable).description(); });
        return;
    }
    const auto payload = payloadPreview(volume);
    if (!payload) {
        state_.update([](State& state) { state.errorMessage = TestError(TestError::insufficientFreeSpace).description(); });
        return;
    }

    state_.update([&](State& state) {
        state.isRunning = true;
        state.progressState = ProgressState{};
        if (state.testMode.kind == TestKind::queueDepth) {
            state.progressState->phase = BenchmarkPhase::sequentialWrite;
            state.progressState->stepName = queueDepthStepName(kQueueDepthProfiles.size(), true);
        }
        state.errorMessage.reset();
        state.automaticReportMessage.reset();
        state.automaticReportMessageToken = Uuid::make();
        state.lastTestVolume = volume;
    });
    const Uuid token = Uuid::make();
    activeTestToken_ = token;

    Run::Context context{weak_from_this(), dependencies_.mainExecutor, dependencies_.files, temporaryFiles_,
                         cleanupQueue_,     observer_,                   parameters_,         *volume,
                         state().dataSize,  state().testMode,            *payload,            token};
    retire(std::move(currentTestTask_));
    currentTestTask_ = Task("performanceTest", QualityOfService::userInitiated,
                            [context = std::move(context)](const CancellationToken& cancellation) mutable {
                                Run(std::move(context), cancellation)();
                            });
}

void DiskPerformanceTester::stopTest() {
    if (!state().isRunning) return;
    currentTestTask_.cancel();
    retire(std::move(currentTestTask_));
    activeTestToken_.reset();
    state_.update([](State& state) {
        state.isRunning = false;
        state.progressState.reset();
    });
    // Whatever the run has registered so far goes now; a file it registers later is removed by
    // the run itself when it notices the cancellation. A removal that fails is registered again
    // for the next stop.
    cleanupQueue_->async([files = dependencies_.files, registry = temporaryFiles_] {
        for (const auto& path : registry->takeAll()) {
            if (!files->exists(path)) continue;
            if (files->remove(path)) (void)files->commitRemovals(folderOf(path));
            else registry->add(path);
        }
    });
}

void DiskPerformanceTester::waitForBackgroundWork() {
    currentTestTask_.join();
    for (auto& task : retiredTasks_) task.join();
    retiredTasks_.clear();
    cleanupQueue_->sync([] {});
    automaticExportQueue_->sync([] {});
}

void DiskPerformanceTester::retire(Task task) {
    std::erase_if(retiredTasks_, [](const Task& t) { return t.isFinished(); });
    if (task.valid()) retiredTasks_.push_back(std::move(task));
}

void DiskPerformanceTester::publishProgress(const Uuid& token, const ProgressState& progress) {
    if (activeTestToken_ != token) return;
    state_.update([&](State& state) { state.progressState = progress; });
}

void DiskPerformanceTester::deliver(const Uuid& token, Outcome outcome, std::optional<Result> result,
                                    std::string message) {
    if (activeTestToken_ != token) return;
    activeTestToken_.reset();
    retire(std::move(currentTestTask_));
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
        startAutomaticExport(*state().lastResult, *state().lastTestVolume);
    }
}

void DiskPerformanceTester::startAutomaticExport(const Result& result, const DiskVolumeDescriptor& volume) {
    automaticExportQueue_->async([weak = weak_from_this(), main = dependencies_.mainExecutor,
                                  files = dependencies_.files, result, volume] {
        const std::string html = report::reportHTML(result, volume);
        auto written = files->writeNewFileAtomically(volume.url, report::reportBaseName(result.finishedAt), ".html", html);
        std::optional<std::string> path;
        std::string message;
        if (written) {
            path = *written;
            message = text::automaticReportSaved(*written);
        } else {
            message = text::automaticReportExportFailed(written.error().message);
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
