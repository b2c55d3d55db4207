// What the privileged helper adds to a smartctl run: times one SMART fetch through the real
// client and daemon against starting the same smartctl stand-in directly, and prints the median
// and 99th percentile of both. The stand-in prints a saved NVMe answer, as a real drive's smartctl
// would, so both sides move the same bytes (use a large one: tests/data/smartctl/scrutiny-smart-ata-full.json).
//
//   vantorix_helper_latency HELPER FIXTURE [ITERATIONS] [DEVICE]
//
// The daemon runs on a private socket with result sharing off, so every request starts smartctl.
// Needs root (the client accepts only a root helper).
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "composition/SmartPipeline.h"
#include "platform/linux/Subprocess.h"
#include "platform/linux/UnixSocketHelperConnection.h"
#include "support/HelperDaemon.h"
#include "support/ManualMainExecutor.h"

using namespace vantorix;
using Clock = std::chrono::steady_clock;

namespace {

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s HELPER FIXTURE [ITERATIONS] [DEVICE]\n", argv[0]);
        return 2;
    }
    const std::string helper = argv[1];
    const std::string fixture = argv[2];
    const int iterations = argc > 3 ? std::stoi(argv[3]) : 300;
    const std::string device = argc > 4 ? argv[4] : testing::rootDiskName();

    char pattern[] = "/tmp/vantorix-latency-XXXXXX";
    const std::string dir = ::mkdtemp(pattern);
    const std::string standIn = dir + "/smartctl";
    std::ofstream(standIn) << "#!/bin/sh\ncat " << fixture << "\nexit 4\n";
    ::chmod(standIn.c_str(), 0755);
    const std::string socket = dir + "/helper.sock";
    auto daemon = ChildProcess::start({helper, "--socket", socket, "--smartctl", standIn, "--share-window-ms", "0"});
    if (!daemon.ok()) {
        std::fprintf(stderr, "cannot start %s: %s\n", helper.c_str(), daemon.error().c_str());
        return 1;
    }
    while (!helperListensAt(socket)) std::this_thread::sleep_for(std::chrono::milliseconds(10));

    auto main = std::make_shared<ManualMainExecutor>();
    const auto pipeline = SmartPipeline::over(std::make_shared<ExternalHelperService>(socket), main);
    const std::vector<std::string> direct{standIn, "--json", "-a", "-n", "standby", "/dev/" + device};
    std::vector<double> throughHelper, alone;
    std::size_t bytes = 0;
    for (int i = -10; i < iterations; ++i) {  // ten rounds to warm up
        auto start = Clock::now();
        const auto run = pipeline.client->fetchSmartData(device);
        const double helperTime = millisecondsSince(start);
        start = Clock::now();
        const auto own = runCommand(direct, std::chrono::milliseconds(5000));
        const double directTime = millisecondsSince(start);
        // (runCommand keeps at most 64 KiB of output: use a fixture smaller than that.)
        if (!run.ok() || !own.ok() || run->jsonData != own.value().out) {
            std::fprintf(stderr, "round %d: the helper's answer differs from the direct run's\n", i);
            return 1;
        }
        bytes = run->jsonData.size();
        if (i < 0) continue;
        throughHelper.push_back(helperTime);
        alone.push_back(directTime);
    }
    std::filesystem::remove_all(dir);

    const double helperMedian = percentile(throughHelper, 0.5), helperP99 = percentile(throughHelper, 0.99);
    const double directMedian = percentile(alone, 0.5), directP99 = percentile(alone, 0.99);
    std::printf("%d fetches of %zu bytes for /dev/%s\n", iterations, bytes, device.c_str());
    std::printf("through the helper: median %.3f ms, p99 %.3f ms\n", helperMedian, helperP99);
    std::printf("stand-in directly:  median %.3f ms, p99 %.3f ms\n", directMedian, directP99);
    std::printf("added by the helper: median %.3f ms, p99 %.3f ms\n", helperMedian - directMedian,
                helperP99 - directP99);
    return 0;
}
