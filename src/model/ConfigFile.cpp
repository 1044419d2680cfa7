#include "model/ConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <cerrno>

namespace corvi::configfile {
namespace {

bool writeAll(int fd, const char* data, qint64 size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, static_cast<size_t>(size));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= n;
    }
    return true;
}

}  // namespace

std::optional<QByteArray> read(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::optional<QByteArray> result;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= maxBytes) {
        // One byte past the size tells a file that grew while we read it: refused as torn.
        QByteArray buffer(st.st_size + 1, '\0');
        qint64 total = 0;
        bool failed = false;
        while (total < buffer.size()) {
            const ssize_t n = ::read(fd, buffer.data() + total, static_cast<size_t>(buffer.size() - total));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) failed = true;
            if (n <= 0) break;
            total += n;
        }
        if (!failed && total <= st.st_size) {
            buffer.truncate(total);
            result = std::move(buffer);
        }
    }
    ::close(fd);
    return result;
}

bool replaceAtomically(const QString& path, const QByteArray& data) {
    const QFileInfo info(path);
    QByteArray pattern =
        QFile::encodeName(info.absolutePath() + u'/' + info.fileName() + QStringLiteral(".XXXXXX"));
    // mkstemp creates the file with mode 0600, before a byte of the key is in it.
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ::fchmod(fd, 0600) == 0 && writeAll(fd, data.constData(), data.size()) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok) ok = ::rename(pattern.constData(), QFile::encodeName(path).constData()) == 0;
    if (!ok) {
        ::unlink(pattern.constData());
        return false;
    }
    // Make the rename itself durable.
    const int dir =
        ::open(QFile::encodeName(info.absolutePath()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

}  // namespace corvi::configfile
