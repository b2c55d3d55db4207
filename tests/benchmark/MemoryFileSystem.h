#pragma once

#include <cerrno>
#include <chrono>
#include <thread>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/QueuedFile.h"

namespace vantorix::testing {

// Files in memory, with a log of what the test engine did to them and switches for failures.
class MemoryFileSystem final : public FileSystem {
public:
    struct Operation {
        enum Kind { seek, write, read } kind;
        std::uint64_t value;  // offset, or bytes asked for
    };

    // Switches, set before a run.
    bool failCreation = false;
    bool refuseDirect = false;  // direct opens fail as on a file system without O_DIRECT
    std::chrono::microseconds queuedRequestTime{200};
    std::size_t shortReadBy = 0;  // reads of more than this many bytes return this many fewer
    std::uint64_t capacity = UINT64_MAX;  // writes beyond this many bytes in all fail with ENOSPC

    Result<Unit, FileError> createEmptyFile(const std::string& path) override {
        std::lock_guard lock(mutex_);
        if (failCreation) return Failure{FileError{EACCES, "Permission denied"}};
        if (files_.count(path) != 0) return Failure{FileError{EEXIST, "File exists"}};
        files_[path] = std::make_shared<std::vector<std::byte>>();
        everCreated_.push_back(path);
        return Unit{};
    }
    bool exists(const std::string& path) override {
        std::lock_guard lock(mutex_);
        return files_.count(path) != 0;
    }
    Result<Unit, FileError> remove(const std::string& path) override {
        std::lock_guard lock(mutex_);
        if (files_.erase(path) == 0) return Failure{FileError{ENOENT, "No such file"}};
        return Unit{};
    }
    // Memory has nothing to commit.
    Result<Unit, FileError> commitRemovals(const std::string&) override { return Unit{}; }
    Result<std::unique_ptr<FileHandle>, FileError> open(const std::string& path, FileAccess, CacheMode cache) override {
        if (cache == CacheMode::direct && refuseDirect) return Failure{FileError{EINVAL, "Invalid argument"}};
        std::lock_guard lock(mutex_);
        const auto found = files_.find(path);
        if (found == files_.end()) return Failure{FileError{ENOENT, "No such file"}};
        opens_.push_back(cache);
        return std::unique_ptr<FileHandle>(std::make_unique<Handle>(*this, found->second));
    }
    // A queued file that moves no data: each request takes `queuedRequestTime`.
    Result<std::unique_ptr<QueuedFile>, FileError> openQueued(const std::string& path) override {
        if (refuseDirect) return Failure{FileError{EINVAL, "Invalid argument"}};
        std::lock_guard lock(mutex_);
        if (files_.count(path) == 0) return Failure{FileError{ENOENT, "No such file"}};
        return std::unique_ptr<QueuedFile>(std::make_unique<Queued>(*this));
    }
    Result<std::string, FileError> writeNewFileAtomically(const std::string& directory, const std::string& baseName,
                                                          const std::string& extension, std::string_view data) override {
        std::lock_guard lock(mutex_);
        const std::string path = directory + "/" + baseName + extension;
        reports_[path] = std::string(data);
        return path;
    }

    std::vector<std::string> existingFiles() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> paths;
        for (const auto& [path, data] : files_) paths.push_back(path);
        return paths;
    }
    std::vector<std::string> everCreated() const {
        std::lock_guard lock(mutex_);
        return everCreated_;
    }
    std::vector<CacheMode> opens() const {
        std::lock_guard lock(mutex_);
        return opens_;
    }
    std::vector<QueuedJob> queuedJobs() const {
        std::lock_guard lock(mutex_);
        return queuedJobs_;
    }
    std::vector<Operation> operations() const {
        std::lock_guard lock(mutex_);
        return operations_;
    }
    std::map<std::string, std::string> reports() const {
        std::lock_guard lock(mutex_);
        return reports_;
    }

private:
    using Data = std::shared_ptr<std::vector<std::byte>>;

    class Handle final : public FileHandle {
    public:
        Handle(MemoryFileSystem& owner, Data data) : owner_(owner), data_(std::move(data)) {}
        Result<Unit, FileError> seek(std::uint64_t offset) override {
            owner_.log({Operation::seek, offset});
            position_ = offset;
            return Unit{};
        }
        Result<Unit, FileError> write(std::span<const std::byte> bytes) override {
            owner_.log({Operation::write, bytes.size()});
            std::lock_guard lock(owner_.mutex_);
            if (owner_.written_ + bytes.size() > owner_.capacity) return Failure{FileError{ENOSPC, "No space left on device"}};
            owner_.written_ += bytes.size();
            if (data_->size() < position_ + bytes.size()) data_->resize(position_ + bytes.size());
            std::memcpy(data_->data() + position_, bytes.data(), bytes.size());
            position_ += bytes.size();
            return Unit{};
        }
        Result<std::size_t, FileError> read(std::span<std::byte> buffer) override {
            owner_.log({Operation::read, buffer.size()});
            std::lock_guard lock(owner_.mutex_);
            std::size_t count = position_ >= data_->size() ? 0 : std::min<std::size_t>(buffer.size(), data_->size() - position_);
            if (owner_.shortReadBy > 0 && count > owner_.shortReadBy) count -= owner_.shortReadBy;
            std::memcpy(buffer.data(), data_->data() + position_, count);
            position_ += count;
            return count;
        }
        Result<Unit, FileError> truncate(std::uint64_t length) override {
            std::lock_guard lock(owner_.mutex_);
            data_->resize(length);
            return Unit{};
        }
        Result<Unit, FileError> synchronize() override { return Unit{}; }
        Result<Unit, FileError> close() override { return Unit{}; }

    private:
        MemoryFileSystem& owner_;
        Data data_;
        std::size_t position_ = 0;
    };

    class Queued final : public QueuedFile {
    public:
        explicit Queued(MemoryFileSystem& owner) : owner_(owner) {}
        Result<QueuedFigures, FileError> run(const QueuedJob& job, const std::function<bool()>& shouldStop,
                                             const std::function<void(std::uint64_t)>& progress) override {
            {
                std::lock_guard lock(owner_.mutex_);
                owner_.queuedJobs_.push_back(job);
            }
            const auto start = std::chrono::steady_clock::now();
            QueuedFigures figures;
            while (!shouldStop() && std::chrono::steady_clock::now() - start < job.duration &&
                   (!job.byteLimit || figures.bytes < *job.byteLimit)) {
                std::this_thread::sleep_for(owner_.queuedRequestTime);
                ++figures.operations;
                figures.bytes += job.blockSize;
                progress(figures.bytes);
            }
            figures.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            return figures;
        }
        Result<Unit, FileError> truncate(std::uint64_t) override { return Unit{}; }
        Result<Unit, FileError> synchronize() override { return Unit{}; }
        Result<Unit, FileError> close() override { return Unit{}; }

    private:
        MemoryFileSystem& owner_;
    };
    void log(Operation operation) {
        std::lock_guard lock(mutex_);
        operations_.push_back(operation);
    }

    mutable std::mutex mutex_;
    std::map<std::string, Data> files_;
    std::vector<std::string> everCreated_;
    std::vector<Operation> operations_;
    std::vector<CacheMode> opens_;
    std::vector<QueuedJob> queuedJobs_;
    std::map<std::string, std::string> reports_;
    std::uint64_t written_ = 0;
};

}  // namespace vantorix::testing
