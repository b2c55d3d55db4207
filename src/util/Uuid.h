#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace vantorix {

// A random (version 4) UUID.
class Uuid {
public:
    static Uuid make();
    // Upper-case canonical text, 8-4-4-4-12 hexadecimal digits.
    std::string text() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

    friend bool operator==(const Uuid&, const Uuid&) = default;
    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace vantorix
