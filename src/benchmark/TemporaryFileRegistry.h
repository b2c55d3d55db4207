#pragma once

#include <mutex>
#include <set>
#include <string>

namespace vantorix {

// The test files that exist and still have to be removed. All access is serialised.
class TemporaryFileRegistry {
public:
    void add(const std::string& path);
    void remove(const std::string& path);
    // Returns every pending file and leaves the registry empty.
    std::set<std::string> takeAll();
    bool empty() const;

private:
    mutable std::mutex mutex_;
    std::set<std::string> pendingFiles_;
};

}  // namespace vantorix
