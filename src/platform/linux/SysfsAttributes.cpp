#include "platform/linux/SysfsAttributes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "text/Utf8.h"

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
    if (text.find('\0') != std::string_view::npos || !text::isValidUtf8(text)) return std::nullopt;
    return std::string(text);
}

namespace {

std::optional<std::uint64_t> parseNumber(std::string_view text, int base) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

std::optional<std::uint64_t> parseDecimal(std::string_view text) { return parseNumber(text, 10); }

std::optional<std::uint64_t> parseHex(std::string_view text) { return parseNumber(text, 16); }

std::optional<std::uint64_t> parseHexLiteral(std::string_view text) {
    if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return std::nullopt;
    return parseHex(text.substr(2));
}

}  // namespace vantorix::sysfs
