#include "util/Uuid.h"

#include <sys/random.h>

#include <random>

namespace vantorix {
namespace {

// Identifiers need uniqueness, not secrecy: a per-thread generator seeded once from the kernel keeps
// a fresh identifier to a few nanoseconds, which matters at a thousand samples a second.
std::mt19937_64& generator() {
    thread_local std::mt19937_64 engine = [] {
        std::seed_seq::result_type seed[8]{};
        if (::getrandom(seed, sizeof seed, 0) != static_cast<ssize_t>(sizeof seed)) {
            std::random_device device;
            for (auto& s : seed) s = device();
        }
        std::seed_seq sequence(std::begin(seed), std::end(seed));
        return std::mt19937_64(sequence);
    }();
    return engine;
}

}  // namespace

Uuid Uuid::make() {
    Uuid uuid;
    auto& b = uuid.bytes_;
    auto& engine = generator();
    for (std::size_t i = 0; i < b.size(); i += 8) {
        std::uint64_t word = engine();
        for (std::size_t j = 0; j < 8; ++j) b[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
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
