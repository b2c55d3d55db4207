#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/QueuedFile.h"

namespace vantorix::testing {

// Files in memory, with a log of what the test engine did to them and switches for failures.
// Space is kept as a journaling file system keeps it: a removed file's bytes stay taken until a
// commit after the last handle on it has closed.
class MemoryFileSystem final : public FileSystem, public std::enable_shared_from_this<MemoryFileSystem> {
public:
    struct Operation {
        enum Kind { seek, write, read } kind;
        std::uint64_t value;  // offset, or bytes asked for
    };

    // Switches, set before a run unless said otherwise.
    bool refuseDirect = false;            // direct opens fail as on a file system without O_DIRECT
    std::uint64_t capacity = UINT64_MAX;  // bytes the files may take in all; growing beyond fails with ENOSPC
    int writeError = 0;                   // writes fail with this error number
    // Writes fail with ENOSPC until the first commit after such a failure: space that removals
    // freed and that the file system gives out only once they are committed.
    bool fullUntilCommit = false;
    std::atomic<bool> gone{false};  // the folder's path leads elsewhere; may be set during a run

    Result<std::shared_ptr<Directory>, FileError> openDirectory(const std::string& path, const std::string&) override {
        if (gone) return Failure{FileError{ENODEV, "No such device"}};
        return std::shared_ptr<Directory>(std::make_shared<Folder>(shared_from_this(), path));
    }

    bool holdsFiles() const { return !locked(files_).empty(); }
    std::vector<std::string> everCreated() const { return locked(everCreated_); }
    std::vector<CacheMode> opens() const { return locked(opens_); }
    std::vector<QueuedJob> queuedJobs() const { return locked(queuedJobs_); }
    std::vector<Operation> operations() const { return locked(operations_); }
    std::map<std::string, std::string> reports() const { return locked(reports_); }

private:
    using Data = std::shared_ptr<std::uint64_t>;  // a file's size; its bytes are not kept

    template <class T>
    T locked(const T& member) const {
        std::lock_guard lock(mutex_);
        return member;
    }

    // Bytes taken by files and by removed files not yet given back. Called with the lock held.
    std::uint64_t taken() const {
        std::uint64_t bytes = 0;
        for (const auto& [name, data] : files_) bytes += *data;
        for (const auto& data : removed_) bytes += *data;
        return bytes;
    }

    class Folder final : public Directory {
    public:
        Folder(std::shared_ptr<MemoryFileSystem> owner, std::string path)
            : owner_(std::move(owner)), path_(std::move(path)) {}
        const std::string& path() const override { return path_; }
        bool isInPlace() override { return !owner_->gone; }
        Result<std::uint64_t, FileError> availableBytes() override {
            std::lock_guard lock(owner_->mutex_);
            return owner_->capacity - std::min(owner_->capacity, owner_->taken());
        }
        Result<Unit, FileError> commitRemovals() override {
            std::lock_guard lock(owner_->mutex_);
            std::erase_if(owner_->removed_, [](const Data& data) { return data.use_count() == 1; });
            if (owner_->metFull_) owner_->fullUntilCommit = owner_->metFull_ = false;
            return Unit{};
        }
        Result<Unit, FileError> createEmptyFile(const std::string& name) override {
            std::lock_guard lock(owner_->mutex_);
            const std::string path = path_ + "/" + name;
            if (owner_->files_.count(path) != 0) return Failure{FileError{EEXIST, "File exists"}};
            owner_->files_[path] = std::make_shared<std::uint64_t>(0);
            owner_->everCreated_.push_back(path);
            return Unit{};
        }
        bool exists(const std::string& name) override {
            std::lock_guard lock(owner_->mutex_);
            return owner_->files_.count(path_ + "/" + name) != 0;
        }
        Result<Unit, FileError> remove(const std::string& name) override {
            std::lock_guard lock(owner_->mutex_);
            const auto found = owner_->files_.find(path_ + "/" + name);
            if (found == owner_->files_.end()) return Failure{FileError{ENOENT, "No such file"}};
            owner_->removed_.push_back(found->second);
            owner_->files_.erase(found);
            return Unit{};
        }
        Result<std::unique_ptr<FileHandle>, FileError> open(const std::string& name, FileAccess,
                                                            CacheMode cache) override {
            if (cache == CacheMode::direct && owner_->refuseDirect)
                return Failure{FileError{EINVAL, "Invalid argument"}};
            std::lock_guard lock(owner_->mutex_);
            const auto found = owner_->files_.find(path_ + "/" + name);
            if (found == owner_->files_.end()) return Failure{FileError{ENOENT, "No such file"}};
            owner_->opens_.push_back(cache);
            return std::unique_ptr<FileHandle>(std::make_unique<Handle>(*owner_, found->second));
        }
        // A queued file that moves no data: each request takes 200 µs.
        Result<std::unique_ptr<QueuedFile>, FileError> openQueued(const std::string& name) override {
            if (owner_->refuseDirect) return Failure{FileError{EINVAL, "Invalid argument"}};
            if (!exists(name)) return Failure{FileError{ENOENT, "No such file"}};
            return std::unique_ptr<QueuedFile>(std::make_unique<Queued>(*owner_));
        }
        Result<std::string, FileError> writeNewFileAtomically(const std::string& baseName, const std::string& extension,
                                                              std::string_view data) override {
            std::lock_guard lock(owner_->mutex_);
            const std::string path = path_ + "/" + baseName + extension;
            owner_->reports_[path] = std::string(data);
            return path;
        }

    private:
        std::shared_ptr<MemoryFileSystem> owner_;
        std::string path_;
    };

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
            if (owner_.writeError != 0) return Failure{FileError{owner_.writeError, "refused"}};
            const std::uint64_t end = position_ + bytes.size();
            if (owner_.fullUntilCommit || owner_.taken() + (end - std::min(end, *data_)) > owner_.capacity) {
                owner_.metFull_ = owner_.fullUntilCommit;
                return Failure{FileError{ENOSPC, "No space left on device"}};
            }
            *data_ = std::max(*data_, end);
            position_ = end;
            return Unit{};
        }
        Result<std::size_t, FileError> read(std::span<std::byte> buffer) override {
            owner_.log({Operation::read, buffer.size()});
            std::lock_guard lock(owner_.mutex_);
            const auto count = static_cast<std::size_t>(
                std::min<std::uint64_t>(buffer.size(), *data_ - std::min(*data_, position_)));
            position_ += count;
            return count;
        }
        Result<Unit, FileError> truncate(std::uint64_t length) override {
            std::lock_guard lock(owner_.mutex_);
            *data_ = length;
            return Unit{};
        }
        Result<Unit, FileError> synchronize() override { return Unit{}; }
        Result<Unit, FileError> close() override { return Unit{}; }

    private:
        MemoryFileSystem& owner_;
        Data data_;
        std::uint64_t position_ = 0;
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
                std::this_thread::sleep_for(std::chrono::microseconds(200));
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
        MemoryFileSystem& owner_;
    };

    void log(Operation operation) {
        std::lock_guard lock(mutex_);
        operations_.push_back(operation);
    }

    mutable std::mutex mutex_;
    std::map<std::string, Data> files_;
    std::vector<Data> removed_;  // removed, their bytes not yet given back
    std::vector<std::string> everCreated_;
    std::vector<Operation> operations_;
    std::vector<CacheMode> opens_;
    std::vector<QueuedJob> queuedJobs_;
    std::map<std::string, std::string> reports_;
    bool metFull_ = false;
};

}  // namespace vantorix::testing
