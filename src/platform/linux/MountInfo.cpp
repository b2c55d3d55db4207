#include "platform/linux/MountInfo.h"

#include <algorithm>
#include <charconv>

namespace vantorix {
namespace {

std::string decodeOctalEscapes(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const auto digits = field.substr(i + 1, 3);
            if (digits.size() == 3 && digits.find_first_not_of("01234567") == std::string_view::npos) {
                out.push_back(static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0')));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t pos = 0;
    while (pos < line.size()) {
        while (pos < line.size() && line[pos] == ' ') ++pos;
        if (pos >= line.size()) break;
        const auto end = line.find(' ', pos);
        fields.push_back(line.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos));
        if (end == std::string_view::npos) break;
        pos = end + 1;
    }
    return fields;
}

bool parseNumber(std::string_view text, std::uint32_t& value) {
    const auto* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end;
}

}  // namespace

std::vector<MountInfoEntry> parseMountInfo(std::string_view text) {
    std::vector<MountInfoEntry> entries;
    while (!text.empty()) {
        const auto newline = text.find('\n');
        const auto line = text.substr(0, newline);
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);

        // id parent major:minor root mount-point options [optional...] - type source super-options
        const auto fields = splitFields(line);
        if (fields.size() < 7) continue;
        std::size_t separator = 6;
        while (separator < fields.size() && fields[separator] != "-") ++separator;
        if (separator + 1 >= fields.size()) continue;
        const auto deviceField = fields[2];
        const auto colon = deviceField.find(':');
        MountInfoEntry entry;
        if (colon == std::string_view::npos || !parseNumber(deviceField.substr(0, colon), entry.major) ||
            !parseNumber(deviceField.substr(colon + 1), entry.minor)) {
            continue;
        }
        entry.root = decodeOctalEscapes(fields[3]);
        entry.mountPoint = decodeOctalEscapes(fields[4]);
        entry.fileSystemType = decodeOctalEscapes(fields[separator + 1]);
        entry.source = separator + 2 < fields.size() ? decodeOctalEscapes(fields[separator + 2]) : std::string();
        entries.push_back(std::move(entry));
    }
    return entries;
}

bool mountPointContains(std::string_view mountPoint, std::string_view path) {
    if (mountPoint == "/") return !path.empty() && path.front() == '/';
    if (path.size() < mountPoint.size() || path.compare(0, mountPoint.size(), mountPoint) != 0) return false;
    return path.size() == mountPoint.size() || path[mountPoint.size()] == '/';
}

std::optional<MountInfoEntry> findMount(const std::vector<MountInfoEntry>& entries, std::uint32_t major,
                                        std::uint32_t minor, std::string_view path) {
    const MountInfoEntry* best = nullptr;
    const MountInfoEntry* bestAnyDevice = nullptr;
    for (const auto& entry : entries) {
        if (!mountPointContains(entry.mountPoint, path)) continue;
        if (bestAnyDevice == nullptr || entry.mountPoint.size() >= bestAnyDevice->mountPoint.size())
            bestAnyDevice = &entry;
        if (entry.major != major || entry.minor != minor) continue;
        if (best == nullptr || entry.mountPoint.size() >= best->mountPoint.size()) best = &entry;
    }
    if (best != nullptr) return *best;
    if (bestAnyDevice != nullptr) return *bestAnyDevice;
    return std::nullopt;
}

std::string decodeUdevLabel(std::string_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x') {
            unsigned value = 0;
            const auto* begin = name.data() + i + 2;
            const auto result = std::from_chars(begin, begin + 2, value, 16);
            if (result.ec == std::errc() && result.ptr == begin + 2) {
                out.push_back(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        out.push_back(name[i]);
    }
    return out;
}

std::vector<std::string> blockDeviceMountPoints(const std::vector<MountInfoEntry>& entries) {
    struct Choice {
        std::uint32_t major, minor;
        std::size_t index;
    };
    std::vector<Choice> chosen;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto& entry = entries[i];
        if (entry.major == 0 || entry.source.rfind("/dev/", 0) != 0) continue;
        const auto same = std::find_if(chosen.begin(), chosen.end(), [&](const Choice& c) {
            return c.major == entry.major && c.minor == entry.minor;
        });
        if (same == chosen.end()) {
            chosen.push_back({entry.major, entry.minor, i});
        } else if (entry.root == "/" && entries[same->index].root != "/") {
            same->index = i;
        }
    }
    std::vector<std::string> mountPoints;
    mountPoints.reserve(chosen.size());
    for (const auto& choice : chosen) mountPoints.push_back(entries[choice.index].mountPoint);
    return mountPoints;
}

}  // namespace vantorix
