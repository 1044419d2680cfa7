#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>

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
    const QString folder = base.isEmpty() ? QStringLiteral("/tmp/CorviAgent-%1").arg(getuid())
                                          : base + QStringLiteral("/CorviAgent");
    makeFolder(folder);
    return folder;
}

}  // namespace corvi
