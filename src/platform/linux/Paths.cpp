#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <QDir>
#include <QFileInfo>

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
    return tmpDataFolder(QStringLiteral("/tmp"));
}

QString tmpDataFolder(const QString& tmp) {
    const QString folder = tmp + QStringLiteral("/CorviAgent-%1").arg(getuid());
    const QByteArray path = QFile::encodeName(folder);
    ::mkdir(path.constData(), 0700);
    // Anyone can make this name first in a shared /tmp; the API key is not kept in a folder
    // that is someone else's, a link, or open to others. Then a fresh private one is used.
    struct stat st {};
    if (::lstat(path.constData(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == getuid() &&
        (st.st_mode & 077) == 0)
        return folder;
    QByteArray unique = path + "-XXXXXX";
    return ::mkdtemp(unique.data()) ? QFile::decodeName(unique) : folder;
}

}  // namespace corvi
