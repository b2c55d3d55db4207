#pragma once

#include <fmt/format.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace spdlog {
class logger;
namespace sinks {
class sink;
}
}  // namespace spdlog

namespace vantorix::log {

inline constexpr std::string_view kSubsystem = "com.vantorix.Vantorix";

// Levels of the program's log. `notice` is the default level: notable outcomes.
enum class Level { debug, notice, error };

std::string_view levelName(Level level);

// One logger per category (a component name such as "DiskIOMonitor"). Records go to journald
// when its socket exists, else to standard error filtered by VANTORIX_LOG (debug, info, warn,
// error, off; journald defaults to info, standard error to off), and to every active Capture.
class Logger {
public:
    explicit Logger(std::string category);
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    const std::string& category() const { return category_; }
    bool enabled(Level level) const;

    template <class... Args>
    void debug(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(Level::debug)) write(Level::debug, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    void notice(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(Level::notice)) write(Level::notice, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    void error(fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(Level::error)) write(Level::error, fmt::format(format, std::forward<Args>(args)...));
    }

    void write(Level level, std::string_view message) const;

private:
    std::string category_;
    std::shared_ptr<spdlog::logger> logger_;
};

// A job that runs in rounds (a refresh once a second) says the same things in every round while
// nothing changes. While a scope is open on a thread, a notice or error line that the previous
// scope of the same key also wrote on its thread is written at debug instead: a refresh that fails
// the same way every second logs the failure once, and again when it changes or comes back.
class RoundScope {
public:
    explicit RoundScope(std::string key);
    ~RoundScope();
    RoundScope(const RoundScope&) = delete;
    RoundScope& operator=(const RoundScope&) = delete;

    struct State;

private:
    std::unique_ptr<State> state_;
};

// The process-wide logger of a category, made on first use.
const Logger& logger(std::string_view category);

struct Record {
    std::string category;
    Level level;
    std::string message;
};

// Collects every record written while it exists, at every level, from every thread.
class Capture {
public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<Record> records() const;
    // Messages of one category (and one level, when given), in the order written.
    std::vector<std::string> messages(std::string_view category) const;
    std::vector<std::string> messages(std::string_view category, Level level) const;
    void clear();

    struct State;

private:
    std::shared_ptr<State> state_;
    std::shared_ptr<spdlog::sinks::sink> sink_;
};

}  // namespace vantorix::log
