#include "cli/StandardStreams.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <streambuf>

namespace vantorix::cli {
namespace {

class DescriptorBuffer final : public std::streambuf {
public:
    explicit DescriptorBuffer(int fd) : fd_(fd) { setp(buffer_.data(), buffer_.data() + buffer_.size()); }
    ~DescriptorBuffer() override { sync(); }
    DescriptorBuffer(const DescriptorBuffer&) = delete;
    DescriptorBuffer& operator=(const DescriptorBuffer&) = delete;

    int failure() const { return failure_; }

protected:
    int_type overflow(int_type c) override {
        if (sync() != 0) return traits_type::eof();
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(c);
            pbump(1);
        }
        return traits_type::not_eof(c);
    }

    int sync() override {
        const char* data = pbase();
        auto size = static_cast<std::size_t>(pptr() - pbase());
        setp(buffer_.data(), buffer_.data() + buffer_.size());
        // After a failure nothing more is written: the reader is gone or the file is broken.
        while (size > 0 && failure_ == 0) {
            const ssize_t written = ::write(fd_, data, size);
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) {
                failure_ = errno;
            } else {
                data += written;
                size -= static_cast<std::size_t>(written);
            }
        }
        return failure_ == 0 ? 0 : -1;
    }

private:
    int fd_;
    int failure_ = 0;
    std::array<char, 4096> buffer_{};
};

class DescriptorStream final : public std::ostream {
public:
    DescriptorStream(int fd, bool unbuffered) : std::ostream(nullptr), buffer_(fd) {
        rdbuf(&buffer_);
        if (unbuffered) setf(std::ios::unitbuf);
    }
    int failure() const { return buffer_.failure(); }

private:
    DescriptorBuffer buffer_;
};

}  // namespace

std::ostream& standardOutput() {
    static DescriptorStream stream(STDOUT_FILENO, false);
    return stream;
}

std::ostream& standardError() {
    static DescriptorStream stream(STDERR_FILENO, true);
    return stream;
}

int writeFailure(const std::ostream& stream) {
    if (const auto* own = dynamic_cast<const DescriptorStream*>(&stream); own != nullptr && own->failure() != 0) {
        return own->failure();
    }
    return stream.fail() ? EIO : 0;
}

}  // namespace vantorix::cli
