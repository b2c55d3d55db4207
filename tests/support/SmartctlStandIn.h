#pragma once

#include <memory>
#include <string>
#include <vector>

namespace vantorix::testing {

struct StandInBehaviour {
    enum class Mode { print, hang, flood };
    Mode mode = Mode::print;
    std::string outputFile;      // print: copied to standard output
    std::string standardError;   // print: written to standard error
    int exitStatus = 0;          // print: the exit status
};

// A program standing in for smartctl: a small /bin/sh script in a temporary folder of its own,
// removed with the object. Every start appends its arguments to a log beside the script before
// anything else. Its behaviour is written into the script, since the helper starts it with a fixed
// environment: print (a file to standard output, a text to standard error, an exit status), hang
// (sleeps for good) or flood (about 100 MB to standard output).
class SmartctlStandIn {
public:
    static std::unique_ptr<SmartctlStandIn> create(const StandInBehaviour& behaviour);
    ~SmartctlStandIn();
    SmartctlStandIn(const SmartctlStandIn&) = delete;
    SmartctlStandIn& operator=(const SmartctlStandIn&) = delete;

    // The program to hand to --smartctl.
    const std::string& path() const { return path_; }
    // Rewrites the script atomically (a new file renamed over the old one).
    void setBehaviour(const StandInBehaviour& behaviour);
    // The arguments (without argv[0]) of every start so far, in order.
    std::vector<std::vector<std::string>> starts() const;

private:
    SmartctlStandIn() = default;
    std::string directory_;
    std::string path_;
    std::string log_;
};

}  // namespace vantorix::testing
