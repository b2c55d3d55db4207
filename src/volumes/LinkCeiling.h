#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vantorix {

// How a drive is attached, as far as the link's own figures go, and the most that link can carry.
//
// Rates are kept in base units: transfers per second per lane for PCI Express (8.0 GT/s is
// 8'000'000'000), bits per second on the wire for SATA and USB. The ceiling is the line rate after
// the line code and nothing else: no packet, command or protocol overhead, so real transfers stay
// somewhat below it.

enum class LinkKind { pcie, sata, usb, thunderbolt, other };

struct PcieLink {
    std::uint64_t transfersPerSecond = 0;  // per lane, as negotiated
    unsigned width = 0;                    // lanes, as negotiated
    // What the device itself can do at most, when the system says.
    std::optional<std::uint64_t> maxTransfersPerSecond;
    std::optional<unsigned> maxWidth;

    friend bool operator==(const PcieLink&, const PcieLink&) = default;
};

struct SataLink {
    std::uint64_t bitsPerSecond = 0;                      // as negotiated
    std::optional<std::uint64_t> portLimitBitsPerSecond;  // the port's hardware limit

    friend bool operator==(const SataLink&, const SataLink&) = default;
};

struct UsbLink {
    std::uint64_t bitsPerSecond = 0;      // the speed the device enumerated at
    std::optional<std::uint16_t> bcdUsb;  // the USB version the device declares: 0x0320 for 3.20

    friend bool operator==(const UsbLink&, const UsbLink&) = default;
};

struct ThunderboltLink {
    unsigned generation = 0;  // 4 is USB4 / Thunderbolt 4

    friend bool operator==(const ThunderboltLink&, const ThunderboltLink&) = default;
};

struct LinkCeiling {
    std::variant<std::monostate, PcieLink, SataLink, UsbLink, ThunderboltLink> facts;

    LinkKind kind() const;

    friend bool operator==(const LinkCeiling&, const LinkCeiling&) = default;
};

// "pcie", "sata", "usb", "thunderbolt", "other": the names the JSON output uses.
std::string_view linkKindName(LinkKind kind);

// Bytes per second (1000-based, rounded down) the link carries after its line code:
//   PCIe 2.5 and 5 GT/s use 8b/10b; 8, 16 and 32 GT/s use 128b/130b; 64 GT/s and faster run in
//   FLIT mode, counted as 242 payload bytes of every 256 (PCIe 3.0 x4: 3,938,461,538 B/s).
//   SATA uses 8b/10b (6 Gb/s: 600 MB/s).
//   USB up to 480 Mb/s has no block code, so the bit rate over 8 (60 MB/s); 5 Gb/s uses 8b/10b
//   (500 MB/s); 10 and 20 Gb/s use 128b/132b (1,212,121,212 and 2,424,242,424 B/s). A 10 Gb/s
//   link is taken as Gen 2x1, by far the common kind; a Gen 1x2 one would carry 1,000 MB/s.
//   Thunderbolt carries the drive in a PCIe tunnel: generations 3 and 4 tunnel PCIe 3.0 x4
//   (3,938,461,538 B/s); 1 and 2 are bounded by their 10 and 20 Gb/s channels with 64b/66b.
// Nothing when a figure is missing or unknown.
std::optional<std::uint64_t> ceilingBytesPerSecond(const LinkCeiling& link);

// The link in a few words: "PCIe 3.0 x4", "SATA 6.0 Gb/s", "USB 3.0", "Thunderbolt 3" (雷雳 3).
std::string linkDescription(const LinkCeiling& link);

// One sentence, in the current language, when the drive runs on a link slower than it can use:
// a PCIe link below the device's own top speed or width, a USB 3 device (version 3.00 or later)
// enumerated at 480 Mb/s or less, a SATA link below the port's hardware limit.
std::optional<std::string> slowLinkWarning(const LinkCeiling& link);

// "3.94 GB/s (PCIe 3.0 x4)" / "3.94 GB/秒（PCIe 3.0 x4）"; nothing without a ceiling.
std::optional<std::string> ceilingValueText(const LinkCeiling& link);
// The same with its label: "Link ceiling: 3.94 GB/s (PCIe 3.0 x4)" / "链路上限：3.94 GB/秒（PCIe 3.0 x4）".
std::optional<std::string> linkCeilingText(const LinkCeiling& link);

// A measured speed as a share of the ceiling (0.62 for 62%); nothing without a ceiling or a
// positive speed. Not capped: a share over 1 means the measurement did not cross the link alone.
std::optional<double> ceilingFraction(double bytesPerSecond, const LinkCeiling& link);

// "62% of the link ceiling" / "达到链路上限的 62%".
std::optional<std::string> ceilingShareText(double bytesPerSecond, const LinkCeiling& link);

// A link speed as the system writes it: "8.0 GT/s PCIe x4", "8 GT/s", "6.0 Gbps", "5Gbps",
// "480 Mb/s". The rate goes to units per second; the width is the number after " x", if any.
struct LinkRateText {
    std::uint64_t perSecond = 0;
    std::optional<unsigned> width;
};
std::optional<LinkRateText> parseLinkRateText(std::string_view text);

// A USB version as sysfs writes it (" 3.20", "2.10") in the BCD form of the descriptor (0x0320).
std::optional<std::uint16_t> parseUsbVersion(std::string_view text);

}  // namespace vantorix
