#include "benchmark/TemporaryFileRegistry.h"

namespace vantorix {

void TemporaryFileRegistry::add(const TestFile& file) {
    std::lock_guard lock(mutex_);
    pendingFiles_.emplace(Key{file.folder.get(), file.name}, file.folder);
}

void TemporaryFileRegistry::remove(const TestFile& file) {
    std::lock_guard lock(mutex_);
    pendingFiles_.erase(Key{file.folder.get(), file.name});
}

std::vector<TestFile> TemporaryFileRegistry::takeAll() {
    std::lock_guard lock(mutex_);
    std::vector<TestFile> files;
    for (auto& [key, folder] : pendingFiles_) files.push_back({std::move(folder), key.second});
    pendingFiles_.clear();
    return files;
}

bool TemporaryFileRegistry::empty() const {
    std::lock_guard lock(mutex_);
    return pendingFiles_.empty();
}

}  // namespace vantorix
