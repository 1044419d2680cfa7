#include "shell/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QFile>
#include <cstdio>
#include <cstdlib>

namespace corvi {

InstanceLock::InstanceLock(const QString& path) {
    fd_ = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) return;
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
        acquired_ = true;
        char text[32];
        const int n = std::snprintf(text, sizeof text, "%ld\n", static_cast<long>(::getpid()));
        if (::ftruncate(fd_, 0) == 0 && ::pwrite(fd_, text, static_cast<size_t>(n), 0) == n)
            holder_ = ::getpid();
        return;
    }
    char text[32] = {};
    if (::pread(fd_, text, sizeof text - 1, 0) > 0) holder_ = std::strtol(text, nullptr, 10);
}

InstanceLock::~InstanceLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace corvi
