#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace vantorix::cli {

// Checks of option values with short messages in the user's language, run on the text as typed
// (before conversion), so that nan, inf, out-of-range and 1e308 are refused with exit status 2 and
// no value is echoed longer than it was typed.

// A finite number of seconds: greater than `minimum` (or from it, when `minimumIncluded`) and at
// most `maximum`.
CLI::Validator secondsCheck(double minimum, bool minimumIncluded, double maximum);

// A whole number of bytes from `minimum` to `maximum`.
CLI::Validator byteCountCheck(std::uint64_t minimum, std::uint64_t maximum);

// `check` for an option hidden from --help, which CLI11 does not name in its messages: its own
// message names it.
CLI::Validator namingHiddenOption(const std::string& name, CLI::Validator check);

// A file the program will write: refused when something that is not a regular file (a named pipe,
// a device, a socket, a folder) is already there. Nothing when it can be written.
std::optional<std::string> destinationProblem(const std::string& path);

}  // namespace vantorix::cli
