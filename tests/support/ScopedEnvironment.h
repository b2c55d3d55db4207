#pragma once

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
    ScopedEnvironment(std::initializer_list<std::pair<std::string, std::optional<std::string>>> values);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    void set(const std::string& name, const std::optional<std::string>& value);

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// Unsets every language variable and sets LANG to `lang` (for example "en_US.UTF-8" or "zh_CN.UTF-8").
class ScopedLanguage {
public:
    explicit ScopedLanguage(const std::string& lang);

private:
    ScopedEnvironment environment_;
};

}  // namespace vantorix::testing
