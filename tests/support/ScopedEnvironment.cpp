#include "support/ScopedEnvironment.h"

#include <cstdlib>

namespace vantorix::testing {

ScopedEnvironment::ScopedEnvironment(
    std::initializer_list<std::pair<std::string, std::optional<std::string>>> values) {
    for (const auto& [name, value] : values) set(name, value);
}

ScopedEnvironment::~ScopedEnvironment() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
        if (it->second) ::setenv(it->first.c_str(), it->second->c_str(), 1);
        else ::unsetenv(it->first.c_str());
    }
}

void ScopedEnvironment::set(const std::string& name, const std::optional<std::string>& value) {
    const char* previous = std::getenv(name.c_str());
    saved_.emplace_back(name, previous != nullptr ? std::optional<std::string>(previous) : std::nullopt);
    if (value) ::setenv(name.c_str(), value->c_str(), 1);
    else ::unsetenv(name.c_str());
}

ScopedLanguage::ScopedLanguage(const std::string& lang) {
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LC_NUMERIC"}) environment_.set(name, std::nullopt);
    environment_.set("LANG", lang);
}

}  // namespace vantorix::testing
