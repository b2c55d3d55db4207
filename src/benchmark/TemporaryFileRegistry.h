#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileSystem.h"

namespace vantorix {

// A test file: its name in the folder the run holds open.
struct TestFile {
    std::shared_ptr<Directory> folder;
    std::string name;
};

// The test files that exist and still have to be removed. All access is serialised.
class TemporaryFileRegistry {
public:
    void add(const TestFile& file);
    void remove(const TestFile& file);
    // Returns every pending file and leaves the registry empty.
    std::vector<TestFile> takeAll();
    bool empty() const;

private:
    using Key = std::pair<const Directory*, std::string>;
    mutable std::mutex mutex_;
    std::map<Key, std::shared_ptr<Directory>> pendingFiles_;
};

}  // namespace vantorix
