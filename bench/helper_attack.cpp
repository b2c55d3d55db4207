// What hostile local clients cost the privileged helper. Each attack runs against a fresh daemon on a
// private socket whose smartctl is a stand-in printing FIXTURE, and prints the daemon's peak resident
// memory during the attack (VmHWM), its resident memory once the attack's connections are gone and a
// second has passed (VmRSS), and whether a client of another uid was served meanwhile.
//
//   vantorix_helper_attack FIXTURE [--helper PATH] [--seconds N] [--fuzz FRAMES] [--seed N]
//
// The attacks: one 8 MiB frame of '['; 32 of them at once; 64 connections of uid 65534 pipelining
// helperVersion for N seconds (10) while root asks for the version and SMART data every 200 ms; 64
// connections of eight uids that pipeline fetches and read nothing. With --fuzz, FRAMES fuzzed frames
// go over eight interleaved connections of two uids instead, after which the daemon must still be
// running and answer a fetch. --helper: another build of the daemon (one with AddressSanitizer).
// Needs root: it connects as other uids.
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "protocol/SmartctlHelperProtocol.h"
#include "support/HelperDaemon.h"
#include "support/SmartctlStandIn.h"

using namespace vantorix;
using namespace vantorix::testing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uid_t kNobody = 65534;

struct Settings {
    std::string fixture;
    std::string helper;
    int seconds = 10;
    int fuzzFrames = 0;
    std::uint64_t seed = 0;
};

std::string fetchFrame(const std::string& name) {
    return protocol::framed(protocol::encodedRequest(protocol::FetchRequest{name}));
}
std::string versionFrame() { return protocol::framed(protocol::encodedRequest(protocol::VersionRequest{})); }

std::string header(std::uint32_t length) {
    std::string bytes;
    for (unsigned shift : {24U, 16U, 8U, 0U}) bytes += static_cast<char>(length >> shift & 0xFFU);
    return bytes;
}

// One request on a fresh connection of root's: whether the expected kind of reply came in time.
bool served(const std::string& socket, const std::string& frame, bool wantResult) {
    const int fd = connectTo(socket);
    if (fd < 0) return false;
    const auto payload = sendAll(fd, frame) ? readFrame(fd, 5s) : std::nullopt;
    ::close(fd);
    const auto reply = payload ? protocol::parsedReply(*payload) : std::nullopt;
    if (!reply) return false;
    return wantResult ? std::holds_alternative<SmartctlExecutionResult>(*reply)
                      : std::holds_alternative<protocol::VersionReply>(*reply);
}

struct Daemon {
    std::unique_ptr<SmartctlStandIn> standIn;
    std::unique_ptr<HelperDaemon> process;
};

Daemon startDaemon(const Settings& settings) {
    StandInBehaviour behaviour;
    behaviour.outputFile = settings.fixture;
    Daemon daemon{SmartctlStandIn::create(behaviour), nullptr};
    std::string error;
    daemon.process = HelperDaemon::start({daemon.standIn->path(), {}, settings.helper}, &error);
    if (!daemon.process) {
        std::fprintf(stderr, "cannot start the helper: %s\n", error.c_str());
        std::exit(1);
    }
    return daemon;
}

bool running(const HelperDaemon& daemon) { return !waitForExit(daemon.pid(), 0ms).has_value(); }

// Prints the peak and, once the daemon answers again and a second has passed, the settled memory.
void report(const char* attack, const HelperDaemon& daemon, const std::string& outcome) {
    for (const auto until = Clock::now() + 10s;
         Clock::now() < until && !served(daemon.socketPath(), versionFrame(), false);) {
        std::this_thread::sleep_for(50ms);
    }
    std::this_thread::sleep_for(1s);
    const auto peak = statusKilobytes(daemon.pid(), "VmHWM");
    std::printf("%s: peak VmHWM %llu kB, settled VmRSS %llu kB; %s\n", attack, static_cast<unsigned long long>(peak),
                static_cast<unsigned long long>(statusKilobytes(daemon.pid(), "VmRSS")),
                running(daemon) ? outcome.c_str() : "THE DAEMON DIED");
}

// Connections that each send one 8 MiB frame of '[' at the same moment.
void bracketFrames(const Settings& settings, int connections) {
    auto daemon = startDaemon(settings);
    const std::string frame = header(8U << 20U) + std::string(8U << 20U, '[');
    std::atomic<int> dropped{0}, cutShort{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < connections; ++i) {
        threads.emplace_back([&] {
            const int fd = connectTo(daemon.process->socketPath());
            if (!sendAll(fd, frame)) ++cutShort;
            if (peerClosed(fd, 30s)) ++dropped;
            ::close(fd);
        });
    }
    for (auto& thread : threads) thread.join();
    const std::string title = std::to_string(connections) + " frame(s) of 8 MiB of '['";
    report(title.c_str(), *daemon.process,
           std::to_string(dropped.load()) + " dropped by the daemon, " + std::to_string(cutShort.load()) +
               " of them before the whole frame was sent");
}

// Removes the complete frames at the start of what a connection received; how many there were.
int takeFrames(std::string& received) {
    int frames = 0;
    while (received.size() >= 4) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(received.data());
        const std::size_t length = std::size_t{bytes[0]} << 24U | std::size_t{bytes[1]} << 16U |
                                   std::size_t{bytes[2]} << 8U | bytes[3];
        if (received.size() < 4 + length) break;
        received.erase(0, 4 + length);
        ++frames;
    }
    return frames;
}

// A connection that pipelines `burst` frames, reads the replies and does it again until told to stop;
// it reconnects (as its uid) when the daemon drops it.
struct Pipeline {
    explicit Pipeline(uid_t owner) : uid(owner) {}
    uid_t uid;
    int fd = -1;
    int outstanding = 0;
    std::string received;
    bool answeredOnce = false;
    Clock::time_point nextConnect;  // a refused client tries again twice a second
};

struct PipelineCounts {
    long replies = 0, connects = 0, refused = 0, dropped = 0;
};

void pump(std::vector<Pipeline>& pipelines, const std::string& socket, const std::string& burst, int framesPerBurst,
          bool reads, Clock::time_point until, PipelineCounts& counts) {
    while (Clock::now() < until) {
        std::vector<pollfd> entries;
        for (auto& p : pipelines) {
            if (p.fd < 0 && Clock::now() >= p.nextConnect) {
                p.nextConnect = Clock::now() + 500ms;
                p.fd = connectAs(p.uid, socket);
                p.outstanding = 0;
                p.received.clear();
                p.answeredOnce = false;
                if (p.fd >= 0) ++counts.connects;
            }
            if (p.fd >= 0 && p.outstanding == 0) {
                if (sendAll(p.fd, burst)) p.outstanding = framesPerBurst;
            }
            entries.push_back({p.fd, static_cast<short>(reads ? POLLIN : 0), 0});
        }
        ::poll(entries.data(), entries.size(), 100);
        for (std::size_t i = 0; i < pipelines.size(); ++i) {
            auto& p = pipelines[i];
            if (p.fd < 0 || (entries[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char buffer[65536];
            const ssize_t count = ::recv(p.fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (count <= 0) {
                ++(p.answeredOnce ? counts.dropped : counts.refused);
                ::close(p.fd);
                p.fd = -1;
                continue;
            }
            p.received.append(buffer, static_cast<std::size_t>(count));
            const int replies = takeFrames(p.received);
            counts.replies += replies;
            p.outstanding -= replies;
            p.answeredOnce = p.answeredOnce || replies > 0;
        }
    }
    for (auto& p : pipelines) ::close(std::exchange(p.fd, -1));
}

// Root asks for the version and for SMART data every 200 ms until told to stop.
struct Victim {
    std::atomic<bool> stop{false};
    int asked = 0, answered = 0;
    double slowest = 0;
    std::thread thread;

    void start(const std::string& socket, const std::string& disk) {
        thread = std::thread([this, socket, disk] {
            while (!stop) {
                const auto start = Clock::now();
                ++asked;
                if (served(socket, versionFrame(), false) && served(socket, fetchFrame(disk), true)) ++answered;
                slowest = std::max(slowest, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
                std::this_thread::sleep_for(200ms);
            }
        });
    }
    std::string finish() {
        stop = true;
        thread.join();
        char text[160];
        std::snprintf(text, sizeof text, "root served %d of %d times (slowest %.0f ms)", answered, asked, slowest);
        return text;
    }
};

void versionFlood(const Settings& settings) {
    auto daemon = startDaemon(settings);
    std::vector<Pipeline> pipelines(64, Pipeline(kNobody));
    std::string burst;
    for (int i = 0; i < 16; ++i) burst += versionFrame();
    Victim victim;
    victim.start(daemon.process->socketPath(), rootDiskName());
    PipelineCounts counts;
    pump(pipelines, daemon.process->socketPath(), burst, 16, true,
         Clock::now() + std::chrono::seconds(settings.seconds), counts);
    const std::string outcome = victim.finish() + "; uid 65534: " + std::to_string(counts.connects) + " connects, " +
                                std::to_string(counts.refused) + " closed unanswered, " +
                                std::to_string(counts.replies) + " replies";
    report("64 connections of one uid pipelining helperVersion", *daemon.process, outcome);
}

void unreadFetches(const Settings& settings) {
    auto daemon = startDaemon(settings);
    std::vector<Pipeline> pipelines;
    for (uid_t uid = kNobody - 7; uid <= kNobody; ++uid) pipelines.insert(pipelines.end(), 8, Pipeline(uid));
    std::string burst;
    for (int i = 0; i < 16; ++i) burst += fetchFrame(rootDiskName());
    Victim victim;
    victim.start(daemon.process->socketPath(), rootDiskName());
    PipelineCounts counts;
    pump(pipelines, daemon.process->socketPath(), burst, 16, false, Clock::now() + 3s, counts);
    const std::string outcome = victim.finish() + "; " + std::to_string(counts.connects) + " connects";
    report("64 connections of eight uids, 16 fetches each, replies unread", *daemon.process, outcome);
}

// One fuzzed frame: mostly requests, some of them mangled, nested, cut short or lying about their length.
std::string fuzzedFrame(std::mt19937_64& random, const std::vector<std::string>& devices) {
    const auto below = [&random](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    const auto bytes = [&](std::size_t n) {
        std::string text(n, '\0');
        for (auto& c : text) c = static_cast<char>(random());
        return text;
    };
    const std::vector<std::string> methods{"fetchSmartData", "fetchSmartData", "helperVersion", "",
                                           "fetchSMARTData", bytes(6)};
    std::string device;
    switch (below(5)) {
        case 0: device = devices[below(devices.size())]; break;
        case 1: device = bytes(below(80)); break;
        case 2: device = "../" + devices[below(devices.size())]; break;
        case 3: device = std::string(below(200), 'a'); break;
        default: device = "sda" + std::to_string(below(20));
    }
    std::string json = protocol::encodedRequest(protocol::FetchRequest{device});
    json.replace(json.find("fetchSmartData"), 14, methods[below(methods.size())]);
    switch (below(16)) {  // half of them unchanged
        case 0: json = versionFrame().substr(4); break;
        case 1: json = json.substr(0, below(json.size() + 1)); break;
        case 2:
            for (int i = 0, n = static_cast<int>(below(8)); i <= n; ++i)
                json[below(json.size())] = static_cast<char>(random());
            break;
        case 3: json.insert(below(json.size()), bytes(below(16))); break;
        case 4: {
            const std::size_t depth = 1 + below(6000);
            const bool objects = below(2) == 0;
            std::string open, close;
            for (std::size_t i = 0; i < depth; ++i) {
                open += objects ? "{\"a\":" : "[";
                close += objects ? "}" : "]";
            }
            json = below(2) == 0 ? open + "1" + close
                                 : "{\"method\":\"helperVersion\",\"x\":" + open + "1" + close + "}";
            break;
        }
        case 5: json = bytes(below(5000)); break;
        case 6: json = R"({"method":"helperVersion","method":"fetchSmartData","device":)" + json + "}"; break;
        case 7: json = R"({"method":["fetchSmartData"],"device":{"name":"sda"}})"; break;
        default: break;
    }
    // The length announced: usually the truth, sometimes more, less, zero or far over any cap.
    std::uint32_t length = static_cast<std::uint32_t>(json.size());
    switch (below(32)) {
        case 0: length += static_cast<std::uint32_t>(1 + below(64)); break;
        case 1: length = static_cast<std::uint32_t>(below(length + 1)); break;
        case 2: length = 0; break;
        case 3: length = static_cast<std::uint32_t>(random()); break;
        default: break;
    }
    return header(length) + json;
}

void fuzz(const Settings& settings) {
    auto daemon = startDaemon(settings);
    const std::string socket = daemon.process->socketPath();
    std::mt19937_64 random(settings.seed);
    std::vector<std::string> devices{rootDiskName()};
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/block"))
        devices.push_back(entry.path().filename());
    struct Connection {
        int fd = -1;
        std::string unsent, received;
    };
    std::vector<Connection> connections(8);
    long replies = 0, reconnects = 0, droppedByDaemon = 0, closedByUs = 0;
    const auto reconnect = [&](Connection& c) {
        if (c.fd >= 0) ::close(c.fd);
        c.fd = connectAs(random() % 2 == 0 ? 0 : kNobody, socket);
        c.unsent.clear();
        c.received.clear();
        ++reconnects;
    };
    for (int frame = 0; frame < settings.fuzzFrames; ++frame) {
        auto& c = connections[random() % connections.size()];
        if (c.fd < 0 || random() % 100 == 0) {  // sometimes gone in the middle of a frame
            if (c.fd >= 0) ++closedByUs;
            reconnect(c);
        }
        c.unsent += fuzzedFrame(random, devices);
        // Interleaved: a random part now, the rest with this connection's next turn.
        const std::size_t now = random() % 4 == 0 ? random() % (c.unsent.size() + 1) : c.unsent.size();
        const ssize_t sent = ::send(c.fd, c.unsent.data(), now, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) c.unsent.erase(0, static_cast<std::size_t>(sent));
        // Replies are read as they come; the next frame waits until the daemon has read this one's
        // bytes (nothing left queued on the socket), or dropped the connection.
        for (const auto until = Clock::now() + 2s; Clock::now() < until;) {
            for (auto& other : connections) {
                char buffer[65536];
                ssize_t count = 0;
                while (other.fd >= 0 && (count = ::recv(other.fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
                    other.received.append(buffer, static_cast<std::size_t>(count));
                    replies += takeFrames(other.received);
                }
                if (other.fd >= 0 && (count == 0 || errno != EAGAIN)) {
                    ++droppedByDaemon;
                    ::close(std::exchange(other.fd, -1));
                }
            }
            int queued = 0;
            if (c.fd < 0 || ::ioctl(c.fd, SIOCOUTQ, &queued) != 0 || queued == 0) break;
            std::this_thread::sleep_for(1ms);
        }
        if (frame % 100 == 0 && !running(*daemon.process)) break;
    }
    for (auto& c : connections) ::close(c.fd);
    const bool alive = running(*daemon.process);
    const bool answers = alive && served(socket, fetchFrame(rootDiskName()), true);
    char outcome[240];
    std::snprintf(outcome, sizeof outcome,
                  "%d frames (seed %llu): daemon %s, a fetch afterwards %s; %ld replies, %ld connections "
                  "dropped by the daemon, %ld by the fuzzer, %ld connects",
                  settings.fuzzFrames, static_cast<unsigned long long>(settings.seed), alive ? "running" : "DEAD",
                  answers ? "answered" : "NOT ANSWERED", replies, droppedByDaemon, closedByUs, reconnects);
    report("fuzz", *daemon.process, outcome);
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    settings.seed = static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (argument == "--helper" && hasValue) settings.helper = argv[++i];
        else if (argument == "--seconds" && hasValue) settings.seconds = std::stoi(argv[++i]);
        else if (argument == "--fuzz" && hasValue) settings.fuzzFrames = std::stoi(argv[++i]);
        else if (argument == "--seed" && hasValue) settings.seed = std::stoull(argv[++i]);
        else if (settings.fixture.empty() && argument[0] != '-') settings.fixture = argument;
        else {
            settings.fixture.clear();  // prints the usage
            break;
        }
    }
    if (settings.fixture.empty() || ::geteuid() != 0) {
        std::fprintf(stderr, "usage (as root): %s FIXTURE [--helper PATH] [--seconds N] [--fuzz FRAMES] [--seed N]\n",
                     argv[0]);
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    if (settings.fuzzFrames > 0) {
        fuzz(settings);
        return 0;
    }
    bracketFrames(settings, 1);
    bracketFrames(settings, 32);
    versionFlood(settings);
    unreadFetches(settings);
    return 0;
}
