#include "benchmark/TemporaryFileRegistry.h"

#include <utility>

namespace vantorix {

void TemporaryFileRegistry::add(const std::string& path) {
    std::lock_guard lock(mutex_);
    pendingFiles_.insert(path);
}

void TemporaryFileRegistry::remove(const std::string& path) {
    std::lock_guard lock(mutex_);
    pendingFiles_.erase(path);
}

std::set<std::string> TemporaryFileRegistry::takeAll() {
    std::lock_guard lock(mutex_);
    return std::exchange(pendingFiles_, {});
}

bool TemporaryFileRegistry::empty() const {
    std::lock_guard lock(mutex_);
    return pendingFiles_.empty();
}

}  // namespace vantorix
