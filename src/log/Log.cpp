#include "log/Log.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>

namespace vantorix::log {

struct RoundScope::State {
    std::string key;
    std::set<std::string> previous;  // what the last round of this key wrote
    std::set<std::string> written;
    State* outer = nullptr;
};

struct Capture::State {
    mutable std::mutex mutex;
    std::vector<Record> records;
};

namespace {

spdlog::level::level_enum toSpdlog(Level level) {
    switch (level) {
        case Level::debug: return spdlog::level::debug;
        case Level::notice: return spdlog::level::info;
        case Level::error: return spdlog::level::err;
    }
    return spdlog::level::info;
}

Level fromSpdlog(spdlog::level::level_enum level) {
    if (level <= spdlog::level::debug) return Level::debug;
    if (level >= spdlog::level::err) return Level::error;
    return Level::notice;
}

// Sends records to the systemd journal with the subsystem and category as fields of their own.
class JournaldSink final : public spdlog::sinks::base_sink<std::mutex> {
protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        int priority = LOG_INFO;
        if (msg.level <= spdlog::level::debug) priority = LOG_DEBUG;
        else if (msg.level >= spdlog::level::err) priority = LOG_ERR;
        else if (msg.level == spdlog::level::warn) priority = LOG_WARNING;
        const auto& name = msg.logger_name;
        const auto& text = msg.payload;
        sd_journal_send("MESSAGE=%.*s", static_cast<int>(text.size()), text.data(), "PRIORITY=%d", priority,
                        "SYSLOG_IDENTIFIER=vantorix", "VANTORIX_SUBSYSTEM=%.*s", static_cast<int>(kSubsystem.size()),
                        kSubsystem.data(), "VANTORIX_CATEGORY=%.*s", static_cast<int>(name.size()), name.data(),
                        nullptr);
    }
    void flush_() override {}
};

class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit CaptureSink(std::shared_ptr<Capture::State> state) : state_(std::move(state)) {}

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        std::lock_guard lock(state_->mutex);
        state_->records.push_back(Record{std::string(msg.logger_name.begin(), msg.logger_name.end()),
                                         fromSpdlog(msg.level), std::string(msg.payload.begin(), msg.payload.end())});
    }
    void flush_() override {}

private:
    std::shared_ptr<Capture::State> state_;
};

spdlog::level::level_enum levelFromEnvironment(spdlog::level::level_enum fallback) {
    const char* value = std::getenv("VANTORIX_LOG");
    if (value == nullptr || *value == '\0') return fallback;
    const std::string_view v(value);
    if (v == "debug" || v == "trace") return spdlog::level::debug;
    if (v == "info" || v == "default" || v == "notice") return spdlog::level::info;
    if (v == "warn" || v == "warning") return spdlog::level::warn;
    if (v == "error") return spdlog::level::err;
    return spdlog::level::off;
}

bool journalAvailable() {
    struct stat st {};
    return ::stat("/run/systemd/journal/socket", &st) == 0 && S_ISSOCK(st.st_mode);
}

// Owns the shared sinks. Every logger writes to one distributing sink: the output sink (journal
// or standard error) and any capture sinks.
class Hub {
public:
    static Hub& instance() {
        static Hub* hub = new Hub();  // never destroyed: loggers may log during static destruction
        return *hub;
    }

    std::shared_ptr<spdlog::sinks::dist_sink_mt> sink() const { return dist_; }

    spdlog::level::level_enum threshold() const {
        std::lock_guard lock(mutex_);
        return captures_ > 0 ? spdlog::level::debug : outputLevel_;
    }

    void registerLogger(const std::shared_ptr<spdlog::logger>& logger) {
        std::lock_guard lock(mutex_);
        logger->set_level(captures_ > 0 ? spdlog::level::debug : outputLevel_);
        loggers_.push_back(logger);
    }

    void addCapture(const std::shared_ptr<spdlog::sinks::sink>& sink) {
        dist_->add_sink(sink);
        std::lock_guard lock(mutex_);
        ++captures_;
        applyLevel();
    }

    void removeCapture(const std::shared_ptr<spdlog::sinks::sink>& sink) {
        dist_->remove_sink(sink);
        std::lock_guard lock(mutex_);
        --captures_;
        applyLevel();
    }

private:
    Hub() : dist_(std::make_shared<spdlog::sinks::dist_sink_mt>()) {
        std::shared_ptr<spdlog::sinks::sink> output;
        if (journalAvailable()) {
            output = std::make_shared<JournaldSink>();
            outputLevel_ = levelFromEnvironment(spdlog::level::info);
        } else {
            output = std::make_shared<spdlog::sinks::stderr_sink_mt>();
            output->set_pattern(fmt::format("%Y-%m-%d %H:%M:%S.%e {}[%n] %l: %v", kSubsystem));
            outputLevel_ = levelFromEnvironment(spdlog::level::off);
        }
        output->set_level(outputLevel_);
        dist_->add_sink(output);
        dist_->set_level(spdlog::level::trace);
    }

    void applyLevel() {
        const auto level = captures_ > 0 ? spdlog::level::debug : outputLevel_;
        for (const auto& weak : loggers_) {
            if (auto logger = weak.lock()) logger->set_level(level);
        }
    }

    mutable std::mutex mutex_;
    std::shared_ptr<spdlog::sinks::dist_sink_mt> dist_;
    spdlog::level::level_enum outputLevel_ = spdlog::level::off;
    int captures_ = 0;
    std::vector<std::weak_ptr<spdlog::logger>> loggers_;
};

thread_local RoundScope::State* currentRound = nullptr;

// The lines each round key wrote in its last round. Keys are few (a device per refresh).
std::mutex roundsMutex;
std::map<std::string, std::set<std::string>>& lastRounds() {
    static auto* rounds = new std::map<std::string, std::set<std::string>>();
    return *rounds;
}

}  // namespace

std::string_view levelName(Level level) {
    switch (level) {
        case Level::debug: return "debug";
        case Level::notice: return "default";
        case Level::error: return "error";
    }
    return "default";
}

Logger::Logger(std::string category)
    : category_(std::move(category)), logger_(std::make_shared<spdlog::logger>(category_, Hub::instance().sink())) {
    Hub::instance().registerLogger(logger_);
}

Logger::~Logger() = default;

bool Logger::enabled(Level level) const { return logger_->should_log(toSpdlog(level)); }

void Logger::write(Level level, std::string_view message) const {
    if (level != Level::debug && currentRound != nullptr) {
        std::string line = fmt::format("{}\x1f{}\x1f{}", category_, levelName(level), message);
        if (currentRound->previous.count(line) > 0) level = Level::debug;
        currentRound->written.insert(std::move(line));
    }
    if (enabled(level)) logger_->log(toSpdlog(level), message);
}

RoundScope::RoundScope(std::string key) : state_(std::make_unique<State>()) {
    state_->key = std::move(key);
    {
        std::lock_guard lock(roundsMutex);
        const auto found = lastRounds().find(state_->key);
        if (found != lastRounds().end()) state_->previous = found->second;
    }
    state_->outer = currentRound;
    currentRound = state_.get();
}

RoundScope::~RoundScope() {
    currentRound = state_->outer;
    std::lock_guard lock(roundsMutex);
    auto& rounds = lastRounds();
    if (state_->written.empty()) rounds.erase(state_->key);
    else rounds[state_->key] = std::move(state_->written);
}

const Logger& logger(std::string_view category) {
    static std::mutex mutex;
    static auto* loggers = new std::map<std::string, std::unique_ptr<Logger>, std::less<>>();
    std::lock_guard lock(mutex);
    auto it = loggers->find(category);
    if (it == loggers->end()) {
        it = loggers->emplace(std::string(category), std::make_unique<Logger>(std::string(category))).first;
    }
    return *it->second;
}

Capture::Capture() : state_(std::make_shared<State>()), sink_(std::make_shared<CaptureSink>(state_)) {
    Hub::instance().addCapture(sink_);
}

Capture::~Capture() { Hub::instance().removeCapture(sink_); }

std::vector<Record> Capture::records() const {
    std::lock_guard lock(state_->mutex);
    return state_->records;
}

std::vector<std::string> Capture::messages(std::string_view category) const {
    std::vector<std::string> result;
    std::lock_guard lock(state_->mutex);
    for (const auto& record : state_->records) {
        if (record.category == category) result.push_back(record.message);
    }
    return result;
}

std::vector<std::string> Capture::messages(std::string_view category, Level level) const {
    std::vector<std::string> result;
    std::lock_guard lock(state_->mutex);
    for (const auto& record : state_->records) {
        if (record.category == category && record.level == level) result.push_back(record.message);
    }
    return result;
}

void Capture::clear() {
    std::lock_guard lock(state_->mutex);
    state_->records.clear();
}

}  // namespace vantorix::log
