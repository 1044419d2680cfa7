#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

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
    const QString fallback = QStringLiteral("/tmp/CorviAgent-%1").arg(getuid());
    makeFolder(fallback);
    return fallback;
}

}  // namespace corvi
