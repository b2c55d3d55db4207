#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>


namespace vantorix::testing {

// A fixture tree of sysfs as found on one machine, under tests/data/sysfs.
inline std::filesystem::path sysfsFixture(const std::string& machine) {
    return std::filesystem::path(VANTORIX_TEST_DATA_DIR) / "sysfs" / machine;
}

// A writable copy of a fixture tree (or an empty tree), removed afterwards.
class TreeCopy {
public:
    explicit TreeCopy(const std::string& machine = {}) {
        namespace fs = std::filesystem;
        std::string pattern = (fs::temp_directory_path() / "vantorix-sysfs-XXXXXX").native();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        root_ = pattern;
        if (!machine.empty())
            fs::copy(sysfsFixture(machine), root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    ~TreeCopy() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    TreeCopy(const TreeCopy&) = delete;
    TreeCopy& operator=(const TreeCopy&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path operator/(const std::string& relative) const { return root_ / relative; }
    void write(const std::string& relative, const std::string& content) const {
        std::filesystem::create_directories((root_ / relative).parent_path());
        std::ofstream(root_ / relative, std::ios::binary | std::ios::trunc) << content;
    }
    // A relative link, as sysfs makes them; both paths are relative to the root.
    void link(const std::string& relative, const std::string& target) const {
        namespace fs = std::filesystem;
        fs::create_directories((root_ / relative).parent_path());
        fs::create_symlink(fs::relative(root_ / target, (root_ / relative).parent_path()), root_ / relative);
    }

private:
    std::filesystem::path root_;
};

}  // namespace vantorix::testing
