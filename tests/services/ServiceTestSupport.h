#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

namespace vantorix::testing {

// A fresh folder under the temporary folder, removed with everything in it at the end.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "vantorix-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string string() const { return path_.string(); }

    // The names in the folder (hidden ones included).
    std::set<std::string> names() const {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            found.insert(entry.path().filename().string());
        return found;
    }

private:
    std::filesystem::path path_;
};

inline std::string fileContents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

// Holds server handlers until opened; opened at the latest when it goes, so that a failing test
// never leaves a handler blocked. Declare it after the server it serves.
class Gate {
public:
    ~Gate() { open(); }
    void open() {
        open_ = true;
        open_.notify_all();
    }
    void wait() { open_.wait(false); }

private:
    std::atomic<bool> open_{false};
};

}  // namespace vantorix::testing
