#include "cli/OptionChecks.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <charconv>
#include <cmath>

#include "text/Language.h"
#include "text/SystemError.h"
#include "text/TerminalText.h"

namespace vantorix::cli {
namespace {

// The value as typed, cut short and with control characters made visible.
std::string typed(const std::string& value) {
    constexpr std::size_t kLongest = 24;
    return text::terminalText(value.size() > kLongest ? value.substr(0, kLongest) + "…" : value);
}

template <class Number>
std::optional<Number> parsed(const std::string& value) {
    Number number{};
    const char* end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

}  // namespace

CLI::Validator secondsCheck(double minimum, bool minimumIncluded, double maximum) {
    return {[=](std::string& value) -> std::string {
                const auto seconds = parsed<double>(value);
                if (seconds && std::isfinite(*seconds) && *seconds <= maximum &&
                    (minimumIncluded ? *seconds >= minimum : *seconds > minimum)) {
                    return {};
                }
                if (minimumIncluded) {
                    return text::isEnglish()
                               ? fmt::format("must be a number of seconds from {} to {}, not {}", minimum, maximum,
                                             typed(value))
                               : fmt::format("应为 {} 到 {} 之间的秒数，而不是 {}", minimum, maximum, typed(value));
                }
                return text::isEnglish()
                           ? fmt::format("must be a number of seconds greater than {} and at most {}, not {}", minimum,
                                         maximum, typed(value))
                           : fmt::format("应为大于 {} 且不超过 {} 的秒数，而不是 {}", minimum, maximum, typed(value));
            },
            ""};
}

CLI::Validator byteCountCheck(std::uint64_t minimum, std::uint64_t maximum) {
    return {[=](std::string& value) -> std::string {
                const auto bytes = parsed<std::uint64_t>(value);
                if (bytes && *bytes >= minimum && *bytes <= maximum) return {};
                return text::isEnglish()
                           ? fmt::format("must be a whole number of bytes from {} to {}, not {}", minimum, maximum,
                                         typed(value))
                           : fmt::format("应为 {} 到 {} 之间的整数字节数，而不是 {}", minimum, maximum, typed(value));
            },
            ""};
}

CLI::Validator namingHiddenOption(const std::string& name, CLI::Validator check) {
    return {[name, check = std::move(check)](std::string& value) -> std::string {
                const std::string problem = check(value);
                return problem.empty() ? problem : name + text::localized("：", ": ") + problem;
            },
            ""};
}

std::optional<std::string> destinationProblem(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return std::nullopt;
    const std::string message = text::isEnglish() ? fmt::format("Cannot write to {}.", path)
                                                  : fmt::format("无法写入 {}。", path);
    return text::withCause(message, text::notRegularFileText(status.st_mode));
}

}  // namespace vantorix::cli
