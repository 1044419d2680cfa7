#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include <QDir>
#include <QFile>
#include <QSet>

#include "platform/Log.h"
#include "platform/Paths.h"

namespace corvi {
namespace {

QString homeFolder() {
    const QString home = qEnvironmentVariable("HOME");
    if (!home.isEmpty()) return home;
    if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir && *pw->pw_dir)
        return QString::fromLocal8Bit(pw->pw_dir);
    return {};
}

// Asked for at every use (and from more than one thread): each line said once per process.
void sayOnce(const QString& line) {
    static std::mutex mutex;
    static QSet<QString> said;
    const std::lock_guard lock(mutex);
    if (!said.contains(line)) {
        said.insert(line);
        Log::localFailure(line);
    }
}

// mkdir -p with 0700 for every folder it creates; existing parents keep their mode. 0 when
// `path` is a folder in the end, else the first reason it could not be made.
int makeFolder(const QString& path) {
    const QStringList parts = path.split(u'/', Qt::SkipEmptyParts);
    QString walk;
    int error = 0;
    for (const QString& part : parts) {
        walk += u'/' + part;
        if (::mkdir(QFile::encodeName(walk).constData(), 0700) != 0 && errno != EEXIST && error == 0)
            error = errno;
    }
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) == 0 && S_ISDIR(st.st_mode)) return 0;
    return error ? error : ENOTDIR;
}

// A file made, written and removed: access(2) alone would miss a full disk.
int writeProbe(const QByteArray& folder) {
    QByteArray name = folder + "/.corviagent-probe-XXXXXX";
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) return errno;
    int error = ::write(fd, "\n", 1) == 1 ? 0 : errno;
    if (::close(fd) != 0 && error == 0) error = errno;
    ::unlink(name.constData());
    return error;
}

// config.json holds the API key: the folder is made private again at every start, whatever
// a person or another program made of it. A folder the agent cannot write keeps its sessions
// and key where they are (a folder elsewhere would start empty); it is said, with the reason.
void checkFolder(const QString& folder) {
    const QByteArray path = QFile::encodeName(folder);
    struct stat st {};
    int modeError = 0;
    if (::stat(path.constData(), &st) == 0 && (st.st_mode & 07777) != 0700 &&
        ::chmod(path.constData(), 0700) != 0)
        modeError = errno;
    if (const int error = writeProbe(path))
        sayOnce(QStringLiteral("CorviAgent: não é possível gravar na pasta de dados ") + folder +
                QStringLiteral(": ") + Log::reason(error));
    else if (modeError)
        sayOnce(QStringLiteral("CorviAgent: a pasta de dados ") + folder +
                QStringLiteral(" não pôde receber o modo 0700: ") + Log::reason(modeError));
}

}  // namespace

QString dataFolder() {
    QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (!QDir::isAbsolutePath(base)) {
        const QString home = homeFolder();
        base = home.isEmpty() ? QString() : home + QStringLiteral("/.local/share");
    }
    int error = 0;
    if (!base.isEmpty()) {
        const QString folder = base + QStringLiteral("/CorviAgent");
        error = makeFolder(folder);
        if (error == 0) {
            checkFolder(folder);
            return folder;
        }
    }
    // No home, or one the folder cannot be made in (a service account's /nonexistent): every
    // session and setting would be lost at its first write.
    const QString folder = tmpDataFolder(QStringLiteral("/tmp"));
    sayOnce(QStringLiteral("CorviAgent: pasta de dados em ") + folder + QStringLiteral(" (") +
            (base.isEmpty()
                 ? QStringLiteral("sem pasta pessoal")
                 : base + QStringLiteral("/CorviAgent não pôde ser criada: ") + Log::reason(error)) +
            u')');
    return folder;
}

QString tmpDataFolder(const QString& tmp) {
    const QString own = tmp + QStringLiteral("/CorviAgent-%1").arg(getuid());
    // Anyone can make these names first in a shared /tmp; the API key is not kept in a folder
    // that is someone else's, a link, or open to others. The first of a fixed series that is
    // privately ours is taken, so a restart finds the same folder, its sessions and its key
    // ($XDG_RUNTIME_DIR would not do: it is removed at logout).
    for (int n = 0; n < 100; ++n) {
        const QString folder = n == 0 ? own : own + QStringLiteral("-%1").arg(n);
        const QByteArray path = QFile::encodeName(folder);
        ::mkdir(path.constData(), 0700);
        struct stat st {};
        if (::lstat(path.constData(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == getuid() &&
            (st.st_mode & 077) == 0)
            return folder;
    }
    QByteArray unique = QFile::encodeName(own) + "-XXXXXX";
    return ::mkdtemp(unique.data()) ? QFile::decodeName(unique) : own;
}

}  // namespace corvi
