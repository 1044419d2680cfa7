#include "shell/SignalRelay.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace corvi {
namespace {

// One write end for the whole process: a signal handler cannot find an object.
volatile sig_atomic_t relayFd = -1;
int fds[2] = {-1, -1};

void onSignal(int signum) {
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(signum);
    if (relayFd >= 0) {
        const ssize_t written = ::write(relayFd, &byte, 1);
        (void)written;  // a full pipe already holds a wake-up
    }
    errno = saved;
}

}  // namespace

void SignalRelay::catchEarly(std::initializer_list<int> signums) {
    if (fds[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) != 0) return;
    relayFd = fds[1];
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int s : signums) ::sigaction(s, &action, nullptr);
}

SignalRelay::SignalRelay(std::initializer_list<int> signums, QObject* parent) : QObject(parent) {
    catchEarly(signums);
    if (fds[0] < 0) return;
    notifier_ = new QSocketNotifier(fds[0], QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &SignalRelay::drain);
}

SignalRelay::~SignalRelay() {
    relayFd = -1;
    for (int& fd : fds) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
}

void SignalRelay::drain() {
    unsigned char buffer[64];
    ssize_t n;
    while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0)
        for (ssize_t i = 0; i < n; ++i) emit received(buffer[i]);
}

}  // namespace corvi
