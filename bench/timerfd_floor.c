/* The least a process can spend to wake every millisecond on this machine: block on a 1 ms
 * periodic timerfd (through epoll, as the monitor's queue does) and pread a sysfs stat file once
 * per wake-up. Usage: timerfd_floor SECONDS STATFILE */
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

int main(int argc, char** argv) {
    const long seconds = argc > 1 ? atol(argv[1]) : 60;
    const char* stat = argc > 2 ? argv[2] : "/sys/class/block/vda/stat";
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    const struct itimerspec every = {{0, 1000000}, {0, 1000000}};
    timerfd_settime(timer, 0, &every, NULL);
    const int poll = epoll_create1(0);
    struct epoll_event event = {.events = EPOLLIN | EPOLLET, .data = {.fd = timer}};
    epoll_ctl(poll, EPOLL_CTL_ADD, timer, &event);
    const int counters = open(stat, O_RDONLY);
    char buffer[512];
    uint64_t expirations = 0;
    for (long ticks = 0; ticks < seconds * 1000;) {
        struct epoll_event ready;
        if (epoll_wait(poll, &ready, 1, -1) != 1) continue;
        if (read(timer, &expirations, sizeof expirations) != sizeof expirations) continue;
        if (counters >= 0 && pread(counters, buffer, sizeof buffer, 0) < 0) return 1;
        ticks += (long)expirations;
    }
    return 0;
}
