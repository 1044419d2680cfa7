#pragma once

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace corvi::test {

// Writes `bytes` to `path`, making its folder first; false when it cannot.
inline bool writeFile(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// The file's bytes; empty when it cannot be read.
inline QByteArray readFile(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Sets an environment variable for its lifetime, then restores (or unsets) it.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const QByteArray& value) : name_(name), saved_(qgetenv(name)) {
        qputenv(name, value);
    }
    ~ScopedEnv() { saved_.isNull() ? qunsetenv(name_) : qputenv(name_, saved_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* name_;
    QByteArray saved_;
};

// Makes a file or folder refuse writes, even to root: root ignores mode bits, so it also
// gets the immutable attribute (where the file system keeps it). Undone on destruction.
class ReadOnly {
  public:
    explicit ReadOnly(const QString& path) : path_(QFile::encodeName(path)) {
        struct stat st {};
        ::stat(path_.constData(), &st);
        mode_ = st.st_mode & 07777;
        ::chmod(path_.constData(), S_ISDIR(st.st_mode) ? 0555 : 0444);
        immutable_ = setImmutable(true);
    }
    ~ReadOnly() {
        if (immutable_) setImmutable(false);
        ::chmod(path_.constData(), mode_);
    }
    // Whether writing really is refused here (the kernel's own answer, immutability included).
    bool holds() const { return ::access(path_.constData(), W_OK) != 0; }
    // Whether the refusal outlasts a chmod by the owner (the attribute took).
    bool immutable() const { return immutable_; }

  private:
    bool setImmutable(bool on) {
        const int fd = ::open(path_.constData(), O_RDONLY | O_NONBLOCK);
        int flags = 0;
        bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        if (fd >= 0) ::close(fd);
        return ok;
    }
    QByteArray path_;
    mode_t mode_ = 0;
    bool immutable_ = false;
};

}  // namespace corvi::test
