#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

namespace vantorix::testing {

// A fresh folder under `parent` (the temporary folder unless said otherwise), removed with
// everything in it at the end.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        std::string pattern = (parent / "vantorix-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed in " + parent.string());
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

    std::set<std::string> names() const;  // as namesIn() gives them

private:
    std::filesystem::path path_;
};

// The names in a folder (hidden ones included).
inline std::set<std::string> namesIn(const std::filesystem::path& folder) {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        found.insert(entry.path().filename().string());
    return found;
}
inline std::set<std::string> TemporaryFolder::names() const { return namesIn(path_); }

inline std::string fileContents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

}  // namespace vantorix::testing
