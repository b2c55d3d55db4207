#include "charts/DiskIOGraphRendererCache.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <utility>

#include "concurrency/WeakOwner.h"
#include "util/Saturating.h"

namespace vantorix {

const DataSignature DataSignature::empty{};

DataSignature DataSignature::of(const SampleWindow& samples) {
    if (samples.empty()) return empty;
    return {static_cast<std::int64_t>(samples.size()), samples.front().id, samples.back().id};
}

void DiskIOGraphRendererCache::CurrentJob::set(std::optional<Uuid> token) {
    const std::lock_guard lock(mutex_);
    token_ = token;
}

bool DiskIOGraphRendererCache::CurrentJob::is(const Uuid& token) const {
    const std::lock_guard lock(mutex_);
    return token_ == token;
}

std::shared_ptr<DiskIOGraphRendererCache> DiskIOGraphRendererCache::create(std::shared_ptr<MainExecutor> mainExecutor) {
    return std::shared_ptr<DiskIOGraphRendererCache>(new DiskIOGraphRendererCache(std::move(mainExecutor)));
}

DiskIOGraphRendererCache::DiskIOGraphRendererCache(std::shared_ptr<MainExecutor> mainExecutor)
    : mainExecutor_(std::move(mainExecutor)),
      downsamplingQueue_(
          std::make_unique<SerialQueue>("com.vantorix.graph.downsampling", QualityOfService::userInitiated)) {}

DiskIOGraphRendererCache::~DiskIOGraphRendererCache() {
    // Jobs still queued then return at once instead of computing for nobody.
    cancelPendingWork();
}

double DiskIOGraphRendererCache::speedFactor(std::int64_t sampleIntervalMs) {
    return sampleIntervalMs >= 1 ? 1000.0 / static_cast<double>(sampleIntervalMs) : 0.0;
}

SampleRange DiskIOGraphRendererCache::sanitize(SampleRange range, std::int64_t count) {
    if (count <= 0) return {};
    const std::int64_t lower = std::max(std::min(count, range.lower), std::int64_t{0});
    return {lower, std::max(std::min(count, range.upper), lower)};
}

std::vector<DownsampledBin> DiskIOGraphRendererCache::computeBins(const SampleWindow& samples, std::int64_t start,
                                                                  std::int64_t upper, std::int64_t chunkSize,
                                                                  double speedFactor) {
    std::vector<DownsampledBin> bins;
    if (chunkSize <= 0 || start >= upper) return bins;
    bins.reserve(static_cast<std::size_t>((upper - start + chunkSize - 1) / chunkSize));
    for (std::int64_t binStart = start; binStart < upper; binStart += chunkSize) {
        const std::int64_t binEnd = std::min(binStart + chunkSize, upper);
        std::uint64_t readSum = 0, writeSum = 0, readPeak = 0, writePeak = 0;
        LoadCounters load;
        for (std::int64_t i = binStart; i < binEnd; ++i) {
            const DiskSample& sample = samples[static_cast<std::size_t>(i)];
            readSum = saturatingAdd(readSum, sample.readBytes);
            writeSum = saturatingAdd(writeSum, sample.writeBytes);
            readPeak = std::max(readPeak, sample.readBytes);
            writePeak = std::max(writePeak, sample.writeBytes);
            load += sample.load;
        }
        // The factor is not negative, so the fastest sample is the one that moved the most bytes.
        IndexedSample point{binStart + (binEnd - binStart) / 2,
                            static_cast<double>(readPeak) * speedFactor,
                            static_cast<double>(writePeak) * speedFactor,
                            readSum,
                            writeSum,
                            binEnd - binStart,
                            load};
        bins.push_back(DownsampledBin{{binStart, binEnd}, point});
    }
    return bins;
}

DownsamplingPlan DiskIOGraphRendererCache::makePlan(std::int64_t lower, std::int64_t upper, std::int64_t targetCount,
                                                    std::int64_t chunkSize) const {
    DownsamplingPlan plan{DownsamplingPlan::None{}, {lower, upper}, targetCount, chunkSize};
    const bool sameShape = !cachedBins_.empty() && cachedTargetCount_ == targetCount && cachedChunkSize_ == chunkSize;
    if (sameShape && cachedRange_ == SampleRange{lower, upper}) return plan;
    if (sameShape && cachedRange_.lower == lower && cachedRange_.upper < upper) {
        // Grown at the end only. The last bin may have been cut short by the old end: rebuild it.
        std::vector<DownsampledBin> preserved(cachedBins_.begin(), cachedBins_.end() - 1);
        plan.work = DownsamplingPlan::Recompute{std::move(preserved), cachedBins_.back().range.lower};
        return plan;
    }
    plan.work = DownsamplingPlan::Recompute{{}, lower};
    return plan;
}

void DiskIOGraphRendererCache::update(const SampleWindow& samples, SampleRange range, std::int64_t targetCount,
                                      std::int64_t sampleIntervalMs) {
    assert(mainExecutor_->isMainThread());
    const auto [lower, upper] = sanitize(range, static_cast<std::int64_t>(samples.size()));
    DataSignature signature = DataSignature::of(samples);
    const bool same = signature == cachedDataSignature_;

    if (upper - lower < 1) {
        cancelPendingWork();
        if (cachedSampleIntervalMs_ == sampleIntervalMs && cachedBins_.empty() &&
            cachedRange_ == SampleRange{lower, upper} && cachedTargetCount_ == 0 && cachedChunkSize_ == 0 &&
            plottedSamples_.get().empty() && same) {
            cachedSampleIntervalMs_ = sampleIntervalMs;
            cachedDataSignature_ = signature;
            return;
        }
        postInstaller(Result{{}, {lower, upper}, 0, 0, sampleIntervalMs, signature});
        return;
    }

    if (sampleIntervalMs != cachedSampleIntervalMs_) {
        // Speeds computed with another interval are wrong for this one.
        cachedBins_.clear();
        cachedRange_ = {};
        cachedTargetCount_ = 0;
        cachedChunkSize_ = 0;
    }

    const std::int64_t span = upper - lower;
    const std::int64_t effectiveTarget = std::max(std::min(span, targetCount), std::int64_t{1});
    const auto chunkSize = std::max(
        static_cast<std::int64_t>(std::ceil(static_cast<double>(span) / static_cast<double>(effectiveTarget))),
        std::int64_t{1});
    DownsamplingPlan plan = makePlan(lower, upper, effectiveTarget, chunkSize);

    std::vector<DownsampledBin> preserved;
    std::int64_t start = lower;
    if (same) {
        auto* recompute = std::get_if<DownsamplingPlan::Recompute>(&plan.work);
        if (recompute == nullptr) {
            // Nothing new to compute; a job already under way is left to finish.
            cachedSampleIntervalMs_ = sampleIntervalMs;
            cachedDataSignature_ = signature;
            return;
        }
        preserved = std::move(recompute->preservedBins);
        start = recompute->recomputeStart;
    }

    cancelPendingWork();
    Result result{std::move(preserved), {lower, upper}, effectiveTarget, chunkSize, sampleIntervalMs, signature};
    if (std::max(start, lower) >= upper) {
        postInstaller(std::move(result));
        return;
    }

    const Uuid token = Uuid::make();
    CancellationSource workItem;
    pendingWorkToken_->set(token);
    pendingWorkItem_ = workItem;
    downsamplingQueue_->async([cancelled = workItem.token(), currentJob = std::weak_ptr<CurrentJob>(pendingWorkToken_),
                               cache = weak_from_this(), main = mainExecutor_, token, samples, start,
                               factor = speedFactor(sampleIntervalMs), result = std::move(result)]() mutable {
        const auto isCurrent = [&] {
            const auto job = currentJob.lock();
            return job && job->is(token);
        };
        if (cancelled.isCancelled() || !isCurrent()) return;
        auto bins = computeBins(samples, start, result.range.upper, result.chunkSize, factor);
        result.bins.insert(result.bins.end(), std::make_move_iterator(bins.begin()),
                           std::make_move_iterator(bins.end()));
        main->post([cache = std::move(cache), token, result = std::move(result)]() mutable {
            const auto self = cache.lock();
            if (!self || !self->pendingWorkToken_->is(token)) return;  // superseded: dropped
            self->pendingWorkItem_.reset();
            self->pendingWorkToken_->set(std::nullopt);
            self->install(std::move(result));
        });
    });
}

void DiskIOGraphRendererCache::cancelPendingWork() {
    if (pendingWorkItem_) pendingWorkItem_->cancel();
    pendingWorkItem_.reset();
    pendingWorkToken_->set(std::nullopt);
}

void DiskIOGraphRendererCache::postInstaller(Result result) {
    mainExecutor_->post(weakly(weak_from_this(), [result = std::move(result)](DiskIOGraphRendererCache& cache) mutable {
        cache.install(std::move(result));
    }));
}

void DiskIOGraphRendererCache::install(Result result) {
    cachedBins_ = std::move(result.bins);
    cachedRange_ = result.range;
    cachedTargetCount_ = result.targetCount;
    cachedChunkSize_ = result.chunkSize;
    cachedSampleIntervalMs_ = result.sampleIntervalMs;
    cachedDataSignature_ = result.signature;
    if (cachedBins_.empty()) {
        if (!plottedSamples_.get().empty()) plottedSamples_.set({});
        return;
    }
    Points points;
    points.reserve(cachedBins_.size());
    for (const DownsampledBin& bin : cachedBins_) points.push_back(bin.sample);
    plottedSamples_.set(std::move(points));
}

}  // namespace vantorix
