#include "platform/linux/DesktopEntries.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

namespace corvi {
namespace {

// Entry values may carry the escapes \s \n \t \r \\.
QString unescape(QStringView raw) {
    QString out;
    out.reserve(raw.size());
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const QChar c = raw[i];
        if (c != u'\\' || i + 1 == raw.size()) {
            out += c;
            continue;
        }
        const QChar n = raw[++i];
        if (n == u's')
            out += u' ';
        else if (n == u'n')
            out += u'\n';
        else if (n == u't')
            out += u'\t';
        else if (n == u'r')
            out += u'\r';
        else
            out += n;
    }
    return out;
}

}  // namespace

QStringList DesktopEntries::standardFolders() {
    QString home = qEnvironmentVariable("XDG_DATA_HOME");
    if (!QDir::isAbsolutePath(home)) {
        const QString h = qEnvironmentVariable("HOME");
        home = h.isEmpty() ? QString() : h + QStringLiteral("/.local/share");
    }
    QString dirs = qEnvironmentVariable("XDG_DATA_DIRS");
    if (dirs.isEmpty()) dirs = QStringLiteral("/usr/local/share/:/usr/share/");
    QStringList folders;
    if (!home.isEmpty()) folders << home + QStringLiteral("/applications");
    for (const QString& d : dirs.split(u':', Qt::SkipEmptyParts))
        if (QDir::isAbsolutePath(d)) folders << d + QStringLiteral("/applications");
    return folders;
}

DesktopEntries::DesktopEntries(QStringList folders) : folders_(std::move(folders)) {}

QString DesktopEntries::idForWindowClass(const QString& windowClass) {
    load();
    return windowClass.isEmpty() ? QString() : classes_.value(windowClass);
}

QString DesktopEntries::nameForId(const QString& appId) {
    load();
    return names_.value(appId);
}

void DesktopEntries::load() {
    if (loaded_) return;
    loaded_ = true;
    for (const QString& folder : folders_) {
        const QString base = QDir::cleanPath(folder) + u'/';
        QDirIterator it(folder, {QStringLiteral("*.desktop")}, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            // The ID of applications/kde/foo.desktop is kde-foo.
            QString id = path.mid(base.size());
            id.chop(8);
            id.replace(u'/', u'-');
            if (!names_.contains(id)) readEntry(id, path);
        }
    }
}

void DesktopEntries::readEntry(const QString& id, const QString& path) {
    QFile file(path);
    names_.insert(id, QString());  // claimed even when unreadable: a later folder must not win
    if (file.size() > 1024 * 1024 || !file.open(QIODevice::ReadOnly)) return;
    QString name, wmClass;
    bool inMain = false, hidden = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(u'[')) {
            if (inMain) break;
            inMain = line == QStringLiteral("[Desktop Entry]");
            continue;
        }
        if (!inMain) continue;
        const qsizetype eq = line.indexOf(u'=');
        if (eq <= 0) continue;
        const QString key = line.left(eq).trimmed();
        const QStringView value = QStringView(line).mid(eq + 1).trimmed();
        if (key == QStringLiteral("Name"))
            name = unescape(value);
        else if (key == QStringLiteral("StartupWMClass"))
            wmClass = unescape(value);
        else if (key == QStringLiteral("Hidden"))
            hidden = value == QStringLiteral("true");
    }
    if (hidden) return;
    names_.insert(id, name);
    if (!wmClass.isEmpty() && !classes_.contains(wmClass)) classes_.insert(wmClass, id);
}

}  // namespace corvi
