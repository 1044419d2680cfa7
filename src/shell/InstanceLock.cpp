#include "shell/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace corvi {

InstanceLock::InstanceLock(const QString& path) {
    const QByteArray file = QFile::encodeName(path);
    fd_ = ::open(file.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
        // flock needs no write access: a lock file in a folder or file system that became
        // read-only still keeps a second agent out.
        error_ = errno;
        fd_ = ::open(file.constData(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) return;
        error_ = 0;
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
        acquired_ = true;
        char text[32];
        const int n = std::snprintf(text, sizeof text, "%ld\n", static_cast<long>(::getpid()));
        if (::ftruncate(fd_, 0) == 0 && ::pwrite(fd_, text, static_cast<size_t>(n), 0) == n)
            holder_ = ::getpid();
        return;
    }
    if (errno != EWOULDBLOCK) {
        error_ = errno;
        return;
    }
    char text[32] = {};
    if (::pread(fd_, text, sizeof text - 1, 0) > 0) holder_ = std::strtol(text, nullptr, 10);
}

InstanceLock::~InstanceLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace corvi
