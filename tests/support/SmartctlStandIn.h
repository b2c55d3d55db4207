#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TemporaryFolder.h"

namespace vantorix::testing {

struct StandInBehaviour {
    enum class Mode { print, hang, flood };
    Mode mode = Mode::print;
    std::string outputFile;     // print: copied to standard output
    std::string standardError;  // print: written to standard error
    int exitStatus = 0;         // print: the exit status
};

// A program standing in for smartctl: a small /bin/sh script in a temporary folder of its own,
// removed with the object. Every start appends its arguments to a log beside the script before
// anything else. Its behaviour is written into the script, since the helper starts it with a fixed
// environment: print (a file to standard output, a text to standard error, an exit status), hang
// (sleeps for good) or flood (about 100 MB to standard output).
class SmartctlStandIn {
public:
    static std::unique_ptr<SmartctlStandIn> create(const StandInBehaviour& behaviour) {
        std::unique_ptr<SmartctlStandIn> standIn(new SmartctlStandIn());
        ::chmod(standIn->folder_.string().c_str(), 0755);
        standIn->path_ = standIn->folder_.string() + "/smartctl";
        standIn->log_ = standIn->folder_.string() + "/starts.log";
        standIn->setBehaviour(behaviour);
        return standIn;
    }
    // The program to hand to --smartctl.
    const std::string& path() const { return path_; }
    // Rewrites the script atomically (a new file renamed over the old one).
    void setBehaviour(const StandInBehaviour& behaviour) {
        std::ostringstream script;
        script << "#!/bin/sh\n"
               // One write per start, so that starts at the same moment do not interleave.
               << "line=$(printf '%s\\037' \"$@\")\n"
               << "printf '%s\\n' \"$line\" >> " << quoted(log_) << "\n";
        switch (behaviour.mode) {
            case StandInBehaviour::Mode::print:
                if (!behaviour.outputFile.empty()) script << "cat " << quoted(behaviour.outputFile) << "\n";
                if (!behaviour.standardError.empty())
                    script << "printf '%s' " << quoted(behaviour.standardError) << " >&2\n";
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
    // The arguments (without argv[0]) of every start so far, in order.
    std::vector<std::vector<std::string>> starts() const {
        std::vector<std::vector<std::string>> result;
        std::ifstream in(log_);
        for (std::string line; std::getline(in, line);) {
            std::istringstream fields(line);
            result.emplace_back();
            for (std::string argument; std::getline(fields, argument, kSeparator);) result.back().push_back(argument);
        }
        return result;
    }

private:
    static constexpr char kSeparator = '\x1f';  // between the arguments of one start; a start is one line
    // The text as one single-quoted shell word.
    static std::string quoted(const std::string& text) {
        std::string out = "'";
        for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    }
    SmartctlStandIn() = default;
    TemporaryFolder folder_;
    std::string path_, log_;
};

}  // namespace vantorix::testing
