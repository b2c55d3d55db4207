#include "platform/linux/XdgFolders.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace vantorix::xdg {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> absoluteEnv(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr || *value != '/') return std::nullopt;
    return std::string(value);
}

bool isFolder(const std::string& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

bool isSameFolder(const std::string& a, const std::string& b) {
    return fs::path(a).lexically_normal() / "" == fs::path(b).lexically_normal() / "";
}

// A value as user-dirs.dirs writes it, quotes already removed: "$HOME" and what follows it, or an
// absolute path; anything else is nothing.
std::optional<std::string> expandedHome(std::string_view value, const std::optional<std::string>& home) {
    constexpr std::string_view kHome = "$HOME";
    if (value.starts_with(kHome)) {
        value.remove_prefix(kHome.size());
        if (!home || (!value.empty() && value.front() != '/')) return std::nullopt;  // "$HOMEX" is no home
        return *home + std::string(value);
    }
    if (!value.starts_with('/')) return std::nullopt;
    return std::string(value);
}

// The value of `key` in user-dirs.dirs: a double-quoted string with backslash escapes, as
// xdg-user-dirs-update writes it; the last assignment wins, as in the shell that reads the file.
std::optional<std::string> userDirsValue(const std::string& key, const std::optional<std::string>& home) {
    std::string configHome;
    if (auto set = absoluteEnv("XDG_CONFIG_HOME")) configHome = *std::move(set);
    else if (home) configHome = *home + "/.config";
    else return std::nullopt;

    std::ifstream file(configHome + "/user-dirs.dirs");
    std::optional<std::string> found;
    std::string line;
    while (std::getline(file, line)) {
        std::string_view rest(line);
        const auto skipBlanks = [&rest] {
            while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.remove_prefix(1);
        };
        skipBlanks();
        if (!rest.starts_with(key)) continue;
        rest.remove_prefix(key.size());
        skipBlanks();
        if (!rest.starts_with('=')) continue;
        rest.remove_prefix(1);
        skipBlanks();
        if (!rest.starts_with('"')) continue;
        rest.remove_prefix(1);
        std::string value;
        for (std::size_t i = 0; i < rest.size() && rest[i] != '"'; ++i) {
            if (rest[i] == '\\' && i + 1 < rest.size()) ++i;
            value += rest[i];
        }
        found = expandedHome(value, home);
    }
    return found;
}

std::string temporaryFolder() {
    std::error_code error;
    const fs::path temporary = fs::temp_directory_path(error);
    return error ? std::string("/tmp") : temporary.string();
}

}  // namespace

std::optional<std::string> homeFolder() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return std::string(home);
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && *found->pw_dir != '\0') {
        return std::string(found->pw_dir);
    }
    return std::nullopt;
}

std::optional<std::string> userDirectory(std::string_view name) {
    const std::string key = "XDG_" + std::string(name) + "_DIR";
    const auto home = homeFolder();
    std::optional<std::string> directory;
    if (const char* set = std::getenv(key.c_str()); set != nullptr && *set != '\0') {
        directory = expandedHome(set, home);
    } else {
        directory = userDirsValue(key, home);
    }
    if (directory && home && isSameFolder(*directory, *home)) return std::nullopt;
    return directory;
}

std::string downloadsFolder() {
    if (auto download = userDirectory("DOWNLOAD"); download && isFolder(*download)) return *std::move(download);
    if (const auto home = homeFolder()) {
        if (std::string downloads = *home + "/Downloads"; isFolder(downloads)) return downloads;
    }
    return temporaryFolder();
}

std::optional<std::string> dataHome() {
    if (auto set = absoluteEnv("XDG_DATA_HOME")) return set;
    if (const auto home = homeFolder()) return *home + "/.local/share";
    return std::nullopt;
}

}  // namespace vantorix::xdg
