#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include <QDir>
#include <QFileInfo>

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

// mkdir -p with 0700 for every folder it creates; existing folders keep their mode.
void makeFolder(const QString& path) {
    const QStringList parts = path.split(u'/', Qt::SkipEmptyParts);
    QString walk;
    for (const QString& part : parts) {
        walk += u'/' + part;
        ::mkdir(QFile::encodeName(walk).constData(), 0700);
    }
}

}  // namespace

QString dataFolder() {
    QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (!QDir::isAbsolutePath(base)) {
        const QString home = homeFolder();
        base = home.isEmpty() ? QString() : home + QStringLiteral("/.local/share");
    }
    if (!base.isEmpty()) {
        const QString folder = base + QStringLiteral("/CorviAgent");
        makeFolder(folder);
        if (QFileInfo(folder).isDir()) return folder;
    }
    // No home, or one the folder cannot be made in (a service account's /nonexistent): every
    // session and setting would be lost at its first write.
    const QString folder = tmpDataFolder(QStringLiteral("/tmp"));
    const QString line = QStringLiteral("CorviAgent: pasta de dados em ") + folder + QStringLiteral(" (") +
                         (base.isEmpty() ? QStringLiteral("sem pasta pessoal")
                                         : base + QStringLiteral("/CorviAgent não pôde ser criada")) +
                         u')';
    // Asked for at every use: said once per process.
    static std::mutex mutex;
    static QString said;
    const std::lock_guard lock(mutex);
    if (said != line) Log::line(said = line);
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
