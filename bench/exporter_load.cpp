// Load on a running exporter: SCRAPERS clients that scrape /metrics back to back, each on a new
// connection, SLOW clients that trickle a request head a byte a second and never finish it, and
// HOLDERS clients that keep a connection alive with a request every 7 to 8 s (connecting from FROM,
// and connecting again when the exporter closes theirs), for SECONDS. Prints how many scrapes were
// made and answered, their latency percentiles, what became of the holders' requests, and the
// exporter's CPU share and resident memory over the run (read from /proc for PID).
//
//   vantorix_exporter_load PORT PID [SECONDS=30] [SCRAPERS=200] [SLOW=100] [HOLDERS=0] [FROM=127.0.0.1]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int connectTo(int port, const char* from = "127.0.0.1") {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, from, &address.sin_addr);
    const int late = 1;  // the port is chosen on connecting, as without a bind
    ::setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &late, sizeof(late));
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    timeval limit{30, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    return fd;
}

// Sends a scrape and reads its answer: true when the whole 200 answer arrived.
bool exchange(int fd, bool keepAlive) {
    static const std::string request = "GET /metrics HTTP/1.1\r\nHost: load\r\nUser-Agent: load\r\n";
    const std::string sent = request + (keepAlive ? "\r\n" : "Connection: close\r\n\r\n");
    if (::send(fd, sent.data(), sent.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(sent.size())) return false;
    std::string answer;
    char buffer[16384];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
        answer.append(buffer, static_cast<std::size_t>(n));
        const auto head = answer.find("\r\n\r\n");
        const auto length = answer.find("Content-Length: ");
        if (head != std::string::npos && length < head &&
            answer.size() >= head + 4 + std::stoul(answer.substr(length + 16)))
            break;
    }
    return answer.rfind("HTTP/1.1 200 OK", 0) == 0 && answer.find("vantorix_volumes ") != std::string::npos;
}

// One scrape on a fresh connection.
bool scrape(int port) {
    const int fd = connectTo(port);
    if (fd < 0) return false;
    const bool ok = exchange(fd, false);
    ::close(fd);
    return ok;
}

struct ProcessSample {
    double cpuSeconds = 0;
    long rssKiB = 0;
};

ProcessSample sampleProcess(int pid) {
    ProcessSample sample;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    sample.cpuSeconds = static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) sample.rssKiB = std::atol(line.c_str() + 6);
    }
    return sample;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s PORT PID [SECONDS] [SCRAPERS] [SLOW] [HOLDERS] [FROM]\n", argv[0]);
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const int pid = std::atoi(argv[2]);
    const int seconds = argc > 3 ? std::atoi(argv[3]) : 30;
    const int scrapers = argc > 4 ? std::atoi(argv[4]) : 200;
    const int slowClients = argc > 5 ? std::atoi(argv[5]) : 100;
    const int holders = argc > 6 ? std::atoi(argv[6]) : 0;
    const char* from = argc > 7 ? argv[7] : "127.0.0.1";

    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(seconds);
    std::atomic<long> made{0}, answered{0}, slowRefused{0};
    std::atomic<long> held{0}, heldAnswered{0}, heldClosed{0}, heldRefused{0};
    std::mutex latencyLock;
    std::vector<double> latencies;
    std::vector<std::thread> threads;
    for (int i = 0; i < slowClients; ++i) {
        threads.emplace_back([&] {
            while (Clock::now() < end) {
                const int fd = connectTo(port);
                if (fd < 0) {
                    ++slowRefused;
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                    continue;
                }
                // A byte a second until the server gives up on the connection.
                while (Clock::now() < end && ::send(fd, "G", 1, MSG_NOSIGNAL) == 1)
                    std::this_thread::sleep_for(std::chrono::seconds(1));
                ::close(fd);
            }
        });
    }
    for (int i = 0; i < holders; ++i) {
        threads.emplace_back([&, i] {
            std::mt19937 random(static_cast<unsigned>(i));
            std::uniform_int_distribution<int> pause(7000, 8000);
            while (Clock::now() < end) {
                const int fd = connectTo(port, from);
                if (fd < 0) {
                    ++heldRefused;
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                    continue;
                }
                // A request now and every 7 to 8 s, until the exporter closes the connection.
                while (Clock::now() < end) {
                    ++held;
                    if (!exchange(fd, true)) {
                        ++heldClosed;
                        break;
                    }
                    ++heldAnswered;
                    std::this_thread::sleep_until(
                        std::min(end, Clock::now() + std::chrono::milliseconds(pause(random))));
                }
                ::close(fd);
            }
        });
    }
    const ProcessSample before = sampleProcess(pid);
    long peakRss = before.rssKiB;
    for (int i = 0; i < scrapers; ++i) {
        threads.emplace_back([&] {
            std::vector<double> mine;
            while (Clock::now() < end) {
                const auto t0 = Clock::now();
                ++made;
                if (scrape(port)) ++answered;
                mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            }
            std::lock_guard guard(latencyLock);
            latencies.insert(latencies.end(), mine.begin(), mine.end());
        });
    }
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        peakRss = std::max(peakRss, sampleProcess(pid).rssKiB);
    }
    const ProcessSample after = sampleProcess(pid);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& t : threads) t.join();

    std::sort(latencies.begin(), latencies.end());
    const auto percentile = [&](double p) {
        return latencies.empty() ? 0.0
                                 : latencies[static_cast<std::size_t>(p * static_cast<double>(latencies.size() - 1))];
    };
    std::printf(
        "%d s, %d scrapers, %d slow clients: %ld scrapes, %ld answered (%ld not), latency ms p50 %.2f p99 %.2f max %.2f\n",
        seconds, scrapers, slowClients, made.load(), answered.load(), made.load() - answered.load(), percentile(0.5),
        percentile(0.99), latencies.empty() ? 0.0 : latencies.back());
    if (holders > 0) {
        std::printf(
            "%d keep-alive holders from %s: %ld requests, %ld answered, %ld found their connection closed, %ld connections refused\n",
            holders, from, held.load(), heldAnswered.load(), heldClosed.load(), heldRefused.load());
    }
    std::printf(
        "slow clients refused: %ld; exporter CPU %.1f%% of one core; RSS %ld KiB before, %ld KiB peak, %ld KiB after\n",
        slowRefused.load(), 100 * (after.cpuSeconds - before.cpuSeconds) / wall, before.rssKiB, peakRss, after.rssKiB);
    return answered == made ? 0 : 1;
}
