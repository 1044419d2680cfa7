#pragma once

#include <sys/mount.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>

namespace corvi::test {

// The permission bits of a file or folder; -1 when it cannot be looked at.
inline int modeOf(const QString& path) {
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

// A file system of `size` ("64k") of its own at `path` while it lives; mounting needs root.
class Tmpfs {
  public:
    Tmpfs(const QString& path, const QByteArray& size) : path_(path) {
        QDir().mkpath(path);
        mounted_ = ::mount("tmpfs", QFile::encodeName(path).constData(), "tmpfs", MS_NOSUID | MS_NODEV,
                           ("size=" + size + ",mode=0700").constData()) == 0;
    }
    ~Tmpfs() {
        if (mounted_) ::umount2(QFile::encodeName(path_).constData(), MNT_DETACH);
    }
    Tmpfs(const Tmpfs&) = delete;
    Tmpfs& operator=(const Tmpfs&) = delete;

    bool mounted() const { return mounted_; }
    // A filler file takes up every free block; `free` gives them back.
    void fill() {
        QFile filler(path_ + "/filler");
        filler.open(QIODevice::WriteOnly);
        const QByteArray block(4096, 'f');
        while (filler.write(block) == block.size() && filler.flush()) {
        }
    }
    void free() { QFile::remove(path_ + "/filler"); }

  private:
    QString path_;
    bool mounted_ = false;
};

}  // namespace corvi::test
