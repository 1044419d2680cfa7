#include "platform/linux/freedesktop/XdgLoginItem.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include "BuildConfig.h"

namespace corvi {
namespace {

QString configHome() {
    const QString xdg = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (QDir::isAbsolutePath(xdg)) return xdg;
    return QDir::homePath() + QStringLiteral("/.config");
}

// Keys of the [Desktop Entry] group, string escapes (\s \n \t \r \\) undone.
QHash<QString, QString> desktopEntry(const QByteArray& text) {
    QHash<QString, QString> keys;
    bool inGroup = false;
    for (const QByteArray& raw : text.split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.startsWith(u'[')) {
            inGroup = line == u"[Desktop Entry]";
            continue;
        }
        const qsizetype eq = line.indexOf(u'=');
        if (!inGroup || line.startsWith(u'#') || eq <= 0) continue;
        const QString key = line.left(eq).trimmed();
        const QString value = line.mid(eq + 1).trimmed();
        QString out;
        for (qsizetype i = 0; i < value.size(); ++i) {
            if (value[i] != u'\\' || i + 1 == value.size()) {
                out += value[i];
                continue;
            }
            const QChar next = value[++i];
            out += next == u's'   ? QChar(u' ')
                   : next == u'n' ? QChar(u'\n')
                   : next == u't' ? QChar(u'\t')
                   : next == u'r' ? QChar(u'\r')
                                  : next;
        }
        if (!keys.contains(key)) keys.insert(key, out);
    }
    return keys;
}

bool insideBuildTree(const QString& program) {
    QDir dir = QFileInfo(program).dir();
    while (true) {
        if (QFileInfo::exists(dir.filePath(QStringLiteral("CMakeCache.txt")))) return true;
        if (!dir.cdUp()) return false;
    }
}

}  // namespace

LoginItem& platformLoginItem() {
    static XdgLoginItem item;
    return item;
}

XdgLoginItem::XdgLoginItem()
    : program_(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()),
      starter_(QString::fromUtf8(build::startProgram)) {}

QString XdgLoginItem::launcher() const {
    return installedProgram() && QFileInfo(starter_).isExecutable() ? starter_ : program_;
}

QString XdgLoginItem::entryPath() const {
    return configHome() + QStringLiteral("/autostart/") + QString::fromLatin1(entryName);
}

bool XdgLoginItem::installedProgram() const {
    if (forcedInstalled_) return *forcedInstalled_;
    return !program_.isEmpty() && !insideBuildTree(program_);
}

bool XdgLoginItem::systemWideEntryPresent() const {
    return QFileInfo::exists(systemWidePath_);
}

LoginItem::Status XdgLoginItem::status() const {
    QFile file(entryPath());
    if (!file.open(QIODevice::ReadOnly)) return Status::notRegistered;
    const QHash<QString, QString> keys = desktopEntry(file.read(64 * 1024));
    const bool ours = programOfExec(keys.value(QStringLiteral("Exec"))) == launcher();
    const bool hidden = keys.value(QStringLiteral("Hidden")) == u"true";
    const bool disabled = keys.value(QStringLiteral("X-GNOME-Autostart-enabled")) == u"false";
    return ours && !hidden && !disabled ? Status::enabled : Status::notRegistered;
}

bool XdgLoginItem::registerItem(QString& error) {
    // TryExec: once the package is removed, the desktop skips the entry instead of failing it.
    const QString text = QStringLiteral(
                             "[Desktop Entry]\n"
                             "Type=Application\n"
                             "Name=CorviAgent\n"
                             "Exec=%1\n"
                             "TryExec=%2\n"
                             "NoDisplay=true\n"
                             "X-GNOME-Autostart-enabled=true\n")
                             .arg(execFor(launcher()), tryExecFor(launcher()));
    return write(text, error);
}

bool XdgLoginItem::upgradeItem(QString& error) {
    const QString target = launcher();
    if (target == program_) return true;
    QFile file(entryPath());
    if (!file.open(QIODevice::ReadOnly)) return true;
    const QByteArray text = file.read(64 * 1024);
    if (programOfExec(desktopEntry(text).value(QStringLiteral("Exec"))) != program_) return true;
    QStringList lines;
    bool inGroup = false;
    for (const QString& line : QString::fromUtf8(text).split(u'\n')) {
        const QString key = line.section(u'=', 0, 0).trimmed();
        if (line.trimmed().startsWith(u'[')) inGroup = line.trimmed() == u"[Desktop Entry]";
        if (inGroup && line.contains(u'=') && key == u"TryExec") continue;
        if (inGroup && line.contains(u'=') && key == u"Exec") {
            lines << QStringLiteral("Exec=") + execFor(target)
                  << QStringLiteral("TryExec=") + tryExecFor(target);
            continue;
        }
        lines << line;
    }
    return write(lines.join(u'\n'), error);
}

bool XdgLoginItem::write(const QString& text, QString& error) const {
    const QString path = entryPath();
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder)) {
        error = QStringLiteral("cannot create ") + folder;
        return false;
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        error = path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    file.write(text.toUtf8());
    if (!file.commit()) {
        error = path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    return true;
}

bool XdgLoginItem::unregisterItem(QString& error) {
    QFile file(entryPath());
    if (!file.exists() || file.remove()) return true;
    error = file.fileName() + QStringLiteral(": ") + file.errorString();
    return false;
}

// Always quoted: inside quotes " ` $ \ take a backslash, % is doubled, and the string type
// then doubles every backslash once more.
QString XdgLoginItem::execFor(const QString& program) {
    QString quoted;
    for (const QChar c : program) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\') quoted += u'\\';
        if (c == u'%') quoted += u'%';
        quoted += c;
    }
    quoted = u'"' + quoted + u'"';
    return quoted.replace(u'\\', QStringLiteral("\\\\"));
}

// A plain string value: only the backslash needs escaping.
QString XdgLoginItem::tryExecFor(const QString& program) {
    return QString(program).replace(u'\\', QStringLiteral("\\\\"));
}

QString XdgLoginItem::programOfExec(const QString& exec) {
    QString out;
    qsizetype i = 0;
    const qsizetype n = exec.size();
    if (n > 0 && exec[0] == u'"') {
        for (i = 1; i < n; ++i) {
            if (exec[i] == u'"') break;
            if (exec[i] == u'\\' && i + 1 < n) ++i;
            out += exec[i];
        }
        if (i == n) return {};  // no closing quote
    } else {
        for (; i < n && exec[i] != u' '; ++i) out += exec[i];
    }
    return out.replace(QStringLiteral("%%"), QStringLiteral("%"));
}

}  // namespace corvi
