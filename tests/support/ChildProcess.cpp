#include "support/ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace corvi::test {

ChildProcess::ChildProcess(const std::function<void()>& body) {
    pid_ = fork();
    if (pid_ == 0) {
        body();
        _exit(0);
    }
}

ChildProcess::~ChildProcess() {
    end();
}

void ChildProcess::end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

void burnThenSleep(double seconds) {
    timespec ts{};
    for (;;) {
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        if (static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9 >= seconds) break;
    }
    for (;;) pause();
}

}  // namespace corvi::test
