#include "platform/linux/SysfsTree.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>
#include <vector>

namespace vantorix::sysfs {
namespace {

namespace fs = std::filesystem;

std::optional<fs::path> canonicalDirectory(const fs::path& path) {
    std::error_code error;
    fs::path resolved = fs::canonical(path, error);
    if (error || !fs::is_directory(resolved, error) || error) return std::nullopt;
    return resolved;
}

}  // namespace

SysfsTree::SysfsTree(const fs::path& root) {
    std::error_code error;
    root_ = fs::weakly_canonical(fs::absolute(root, error), error);
    if (error) root_ = root;
    devices_ = root_ / "devices";
    devicesPrefix_ = devices_.native() + '/';
    virtualPrefix_ = (devices_ / "virtual").native() + '/';
}

bool SysfsTree::contains(const fs::path& dir) const {
    const std::string& text = dir.native();
    return text.size() > devicesPrefix_.size() && text.compare(0, devicesPrefix_.size(), devicesPrefix_) == 0;
}

bool SysfsTree::isVirtual(const fs::path& dir) const {
    const std::string& text = dir.native();
    if (text.size() + 1 == virtualPrefix_.size())
        return text.compare(0, text.size(), virtualPrefix_, 0, text.size()) == 0;
    return text.compare(0, virtualPrefix_.size(), virtualPrefix_) == 0;
}

std::optional<fs::path> SysfsTree::blockDevice(std::string_view name) const {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos ||
        name.find('\0') != std::string_view::npos)
        return std::nullopt;
    auto dir = canonicalDirectory(root_ / "class" / "block" / fs::path(std::string(name)));
    if (!dir || !contains(*dir)) return std::nullopt;
    return dir;
}

std::optional<fs::path> SysfsTree::firstSlave(const fs::path& dir) const {
    DIR* stream = ::opendir((dir / "slaves").c_str());
    if (stream == nullptr) return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(stream)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    ::closedir(stream);
    std::sort(names.begin(), names.end());
    // A link that leads nowhere (a slave being torn down) is passed over.
    for (const auto& name : names) {
        auto slave = canonicalDirectory(dir / "slaves" / name);
        if (slave && contains(*slave)) return slave;
    }
    return std::nullopt;
}

std::optional<fs::path> SysfsTree::parentOf(const fs::path& dir, std::string_view subsystem) const {
    if (subsystem == "block") {
        if (auto slave = firstSlave(dir)) return slave;
    }
    fs::path parent = dir.parent_path();
    if (!contains(parent)) return std::nullopt;
    return parent;
}

std::string subsystemOf(const fs::path& dir) {
    std::array<char, 512> target{};
    const ssize_t n = ::readlink((dir / "subsystem").c_str(), target.data(), target.size());
    if (n <= 0 || static_cast<std::size_t>(n) >= target.size()) return {};
    std::string_view link(target.data(), static_cast<std::size_t>(n));
    while (!link.empty() && link.back() == '/') link.remove_suffix(1);
    const auto slash = link.rfind('/');
    return std::string(slash == std::string_view::npos ? link : link.substr(slash + 1));
}

}  // namespace vantorix::sysfs
