#include "util/Uuid.h"

#include <sys/random.h>

#include <random>

namespace vantorix {

Uuid Uuid::make() {
    Uuid uuid;
    auto& b = uuid.bytes_;
    if (::getrandom(b.data(), b.size(), 0) != static_cast<ssize_t>(b.size())) {
        thread_local std::mt19937_64 fallback{std::random_device{}()};
        for (auto& byte : b) byte = static_cast<std::uint8_t>(fallback());
    }
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0Fu) | 0x40u);
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3Fu) | 0x80u);
    return uuid;
}

std::string Uuid::text() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(digits[bytes_[i] >> 4]);
        out.push_back(digits[bytes_[i] & 0x0F]);
    }
    return out;
}

}  // namespace vantorix
