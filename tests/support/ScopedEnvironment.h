#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vantorix::testing {

// Sets (or, with nullopt, unsets) environment variables for the life of the object and puts the
// previous values back afterwards.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ScopedEnvironment(std::initializer_list<std::pair<std::string, std::optional<std::string>>> values) {
        for (const auto& [name, value] : values) set(name, value);
    }
    ~ScopedEnvironment() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->second) ::setenv(it->first.c_str(), it->second->c_str(), 1);
            else ::unsetenv(it->first.c_str());
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    void set(const std::string& name, const std::optional<std::string>& value) {
        const char* previous = std::getenv(name.c_str());
        saved_.emplace_back(name, previous != nullptr ? std::optional<std::string>(previous) : std::nullopt);
        if (value) ::setenv(name.c_str(), value->c_str(), 1);
        else ::unsetenv(name.c_str());
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// Unsets every language variable and sets LANG to `lang` (for example "en_US.UTF-8" or "zh_CN.UTF-8").
class ScopedLanguage {
public:
    explicit ScopedLanguage(const std::string& lang) {
        for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LC_NUMERIC"})
            environment_.set(name, std::nullopt);
        environment_.set("LANG", lang);
    }

private:
    ScopedEnvironment environment_;
};

}  // namespace vantorix::testing
