#include "support/SmartctlStandIn.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vantorix::testing {
namespace {

// The text as one single-quoted shell word.
std::string quoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text) {
        if (c == '\'') out += "'\\''";
        else out += c;
    }
    return out + "'";
}

constexpr char kSeparator = '\x1f';  // between the arguments of one start; a start is one line

}  // namespace

std::unique_ptr<SmartctlStandIn> SmartctlStandIn::create(const StandInBehaviour& behaviour) {
    std::unique_ptr<SmartctlStandIn> standIn(new SmartctlStandIn());
    char pattern[] = "/tmp/vantorix-smartctl-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    ::chmod(pattern, 0755);
    standIn->directory_ = pattern;
    standIn->path_ = standIn->directory_ + "/smartctl";
    standIn->log_ = standIn->directory_ + "/starts.log";
    standIn->setBehaviour(behaviour);
    return standIn;
}

SmartctlStandIn::~SmartctlStandIn() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void SmartctlStandIn::setBehaviour(const StandInBehaviour& behaviour) {
    std::ostringstream script;
    script << "#!/bin/sh\n"
           // One write per start, so that starts at the same moment do not interleave.
           << "line=$(printf '%s\\037' \"$@\")\n"
           << "printf '%s\\n' \"$line\" >> " << quoted(log_) << "\n";
    switch (behaviour.mode) {
        case StandInBehaviour::Mode::print:
            if (!behaviour.outputFile.empty()) script << "cat " << quoted(behaviour.outputFile) << "\n";
            if (!behaviour.standardError.empty()) script << "printf '%s' " << quoted(behaviour.standardError) << " >&2\n";
            script << "exit " << behaviour.exitStatus << "\n";
            break;
        case StandInBehaviour::Mode::hang: script << "exec sleep 1000\n"; break;
        case StandInBehaviour::Mode::flood: script << "exec head -c 100000000 /dev/zero\n"; break;
    }
    const std::string next = path_ + ".next";
    if (!(std::ofstream(next, std::ios::trunc) << script.str())) throw std::runtime_error("cannot write " + next);
    ::chmod(next.c_str(), 0755);
    std::filesystem::rename(next, path_);
}

std::vector<std::vector<std::string>> SmartctlStandIn::starts() const {
    std::vector<std::vector<std::string>> result;
    std::ifstream in(log_);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        result.emplace_back();
        for (std::string argument; std::getline(fields, argument, kSeparator);) result.back().push_back(argument);
    }
    return result;
}

}  // namespace vantorix::testing
