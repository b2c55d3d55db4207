#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "support/TemporaryFolder.h"

namespace vantorix::testing {

// A fixture tree of sysfs as found on one machine, under tests/data/sysfs.
inline std::filesystem::path sysfsFixture(const std::string& machine) {
    return std::filesystem::path(VANTORIX_TEST_DATA_DIR) / "sysfs" / machine;
}

// A writable copy of a fixture tree (or an empty tree), removed afterwards.
class TreeCopy : public TemporaryFolder {
public:
    explicit TreeCopy(const std::string& machine = {}) {
        using std::filesystem::copy_options;
        if (machine.empty()) return;
        std::filesystem::copy(sysfsFixture(machine), path(), copy_options::recursive | copy_options::copy_symlinks);
    }

    const std::filesystem::path& root() const { return path(); }
    std::filesystem::path operator/(const std::string& relative) const { return path() / relative; }
    void write(const std::string& relative, const std::string& content) const {
        std::filesystem::create_directories((path() / relative).parent_path());
        std::ofstream(path() / relative, std::ios::binary | std::ios::trunc) << content;
    }
    // A relative link, as sysfs makes them; both paths are relative to the root.
    void link(const std::string& relative, const std::string& target) const {
        namespace fs = std::filesystem;
        fs::create_directories((path() / relative).parent_path());
        fs::create_symlink(fs::relative(path() / target, (path() / relative).parent_path()), path() / relative);
    }
};

}  // namespace vantorix::testing
