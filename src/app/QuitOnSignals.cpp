#include "app/QuitOnSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <sys/socket.h>
#include <unistd.h>
#include <csignal>

#include <array>
#include <cerrno>
#include <vector>

namespace vantorix::app {
namespace {

// The write end, used from the signal handler; -1 when no instance exists.
volatile sig_atomic_t gWriteEnd = -1;
int gReadEnd = -1;
std::vector<int> gHandled;

void onSignal(int number) {
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(number);
    if (gWriteEnd >= 0) (void)!::write(gWriteEnd, &byte, 1);  // a full pipe already holds a quit
    errno = saved;
}

}  // namespace

QuitOnSignals::QuitOnSignals(std::initializer_list<int> signals, QObject* parent) : QObject(parent) {
    std::array<int, 2> ends{-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) return;
    gReadEnd = ends[0];
    gWriteEnd = ends[1];
    notifier_ = new QSocketNotifier(gReadEnd, QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &QuitOnSignals::drain);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : signals) {
        if (::sigaction(number, &action, nullptr) == 0) gHandled.push_back(number);
    }
}

QuitOnSignals::~QuitOnSignals() {
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    for (const int number : gHandled) ::sigaction(number, &fallback, nullptr);
    gHandled.clear();
    if (gWriteEnd >= 0) ::close(gWriteEnd);
    if (gReadEnd >= 0) ::close(gReadEnd);
    gWriteEnd = -1;
    gReadEnd = -1;
}

void QuitOnSignals::drain() {
    unsigned char byte = 0;
    while (::read(gReadEnd, &byte, 1) == 1) received_ = byte;
    if (received_ != 0) QCoreApplication::quit();
}

}  // namespace vantorix::app
