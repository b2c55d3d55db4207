#include "platform/linux/SysfsAttributes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

namespace vantorix::sysfs {
namespace {

class ScopedFd {
public:
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd() {
        if (fd_ >= 0) ::close(fd_);
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool isPlainName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        }
        if ((lead & 0xE0u) == 0xC0u) {
            length = 2;
            codePoint = lead & 0x1Fu;
        } else if ((lead & 0xF0u) == 0xE0u) {
            length = 3;
            codePoint = lead & 0x0Fu;
        } else if ((lead & 0xF8u) == 0xF0u) {
            length = 4;
            codePoint = lead & 0x07u;
        } else {
            return false;
        }
        if (i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0u) != 0x80u) return false;
            codePoint = (codePoint << 6) | (next & 0x3Fu);
        }
        const std::uint32_t smallest = length == 2 ? 0x80u : length == 3 ? 0x800u : 0x10000u;
        if (codePoint < smallest || codePoint > 0x10FFFFu || (codePoint >= 0xD800u && codePoint <= 0xDFFFu))
            return false;
        i += length;
    }
    return true;
}

// Attributes that name or identify hardware: a number-looking value is still a name.
bool isIdentificationText(std::string_view name) {
    return name == "vendor" || name == "model" || name == "manufacturer" || name == "product" ||
           name == "serial" || name == "firmware_rev";
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

std::optional<std::string> readAttribute(const std::filesystem::path& dir, std::string_view name) {
    if (!isPlainName(name)) return std::nullopt;
    std::string path = dir.native();
    path += '/';
    path += name;
    const ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (fd.get() < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    if ((info.st_mode & (S_IRUSR | S_IRGRP | S_IROTH)) == 0) return std::nullopt;

    std::array<char, kMaxAttributeSize + 1> buffer{};
    std::size_t total = 0;
    while (total < buffer.size()) {
        const ssize_t n = ::read(fd.get(), buffer.data() + total, buffer.size() - total);
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (n == 0) break;
        total += static_cast<std::size_t>(n);
    }
    if (total > kMaxAttributeSize) return std::nullopt;

    std::string_view text(buffer.data(), total);
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (text.find('\0') != std::string_view::npos || !isValidUtf8(text)) return std::nullopt;
    return std::string(text);
}

std::optional<std::uint64_t> parseDecimal(std::string_view text) {
    if (text.empty()) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

std::optional<std::uint64_t> parseHex(std::string_view text) {
    if (text.empty() || text.size() > 16) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : text) {
        std::uint64_t digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<std::uint64_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<std::uint64_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<std::uint64_t>(c - 'A' + 10);
        } else {
            return std::nullopt;
        }
        value = (value << 4) | digit;
    }
    return value;
}

std::optional<std::uint64_t> parseHexLiteral(std::string_view text) {
    if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return std::nullopt;
    return parseHex(text.substr(2));
}

PropertyValue typedAttribute(std::string_view name, std::string_view text) {
    if (name == "idVendor" || name == "idProduct") {
        if (const auto id = parseHex(text)) return PropertyValue(*id);
    }
    if (const auto literal = parseHexLiteral(text)) return PropertyValue(*literal);
    if (!isIdentificationText(name)) {
        if (const auto number = parseDecimal(text)) return PropertyValue(*number);
    }
    return PropertyValue(std::string(text));
}

std::optional<BlockStatCounters> parseBlockStat(std::string_view text) {
    std::array<std::uint64_t, 7> leading{};
    std::size_t fields = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && isSpace(text[i])) ++i;
        if (i == text.size()) break;
        std::size_t end = i;
        while (end < text.size() && !isSpace(text[end])) ++end;
        const auto value = parseDecimal(text.substr(i, end - i));
        if (!value) return std::nullopt;
        if (fields < leading.size()) leading[fields] = *value;
        ++fields;
        i = end;
    }
    if (fields < leading.size()) return std::nullopt;
    return BlockStatCounters{leading[0], leading[2], leading[4], leading[6]};
}

}  // namespace vantorix::sysfs
