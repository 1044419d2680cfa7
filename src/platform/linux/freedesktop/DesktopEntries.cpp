#include "platform/linux/freedesktop/DesktopEntries.h"

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

// The Name keys a locale matches, best first: lang_COUNTRY@MODIFIER, lang_COUNTRY,
// lang@MODIFIER, lang.
QStringList nameKeysFor(QString locale) {
    QString modifier;
    if (const qsizetype at = locale.indexOf(u'@'); at >= 0) {
        modifier = locale.mid(at);
        locale.truncate(at);
    }
    if (const qsizetype dot = locale.indexOf(u'.'); dot >= 0) locale.truncate(dot);
    const QString lang = locale.section(u'_', 0, 0);
    if (lang.isEmpty() || lang == QStringLiteral("C") || lang == QStringLiteral("POSIX")) return {};
    QStringList forms;
    if (locale != lang && !modifier.isEmpty()) forms << locale + modifier;
    if (locale != lang) forms << locale;
    if (!modifier.isEmpty()) forms << lang + modifier;
    forms << lang;
    QStringList keys;
    for (const QString& f : forms) keys << QStringLiteral("Name[%1]").arg(f);
    return keys;
}

// The program an Exec line starts, without its folder: "gimp-2.10" of "gimp-2.10 %U".
QString programOf(const QString& exec) {
    return exec.section(u' ', 0, 0).section(u'/', -1);
}

}  // namespace

QStringList DesktopEntries::uiLanguages() {
    QString locale;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (locale = qEnvironmentVariable(name); !locale.isEmpty()) break;
    // gettext ignores LANGUAGE in the C locale (C.UTF-8 included), and so do we.
    const QString base = locale.section(u'.', 0, 0).section(u'@', 0, 0);
    if (base.isEmpty() || base == QStringLiteral("C") || base == QStringLiteral("POSIX")) return {};
    const QStringList list = qEnvironmentVariable("LANGUAGE").split(u':', Qt::SkipEmptyParts);
    return list.isEmpty() ? QStringList{locale} : list;
}

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

DesktopEntries::DesktopEntries(QStringList folders, const QStringList& languages)
    : folders_(std::move(folders)) {
    for (const QString& language : languages)
        for (const QString& key : nameKeysFor(language))
            if (!nameKeys_.contains(key)) nameKeys_ << key;
    nameKeys_ << QStringLiteral("Name");
}

QString DesktopEntries::idForWmClass(const QString& instance, const QString& windowClass) {
    load();
    // GNOME Shell's order: the instance first, which a web app's entry claims beside its browser's.
    const QString parts[] = {instance, windowClass};
    for (const QString& part : parts)
        if (const QString id = classes_.value(part); !id.isEmpty()) return id;
    // GNOME Shell's next guess: an entry named after either part, as given or lower-cased
    // (Firefox ESR's class "firefox-esr", Inkscape's instance "org.inkscape.Inkscape").
    for (const QString& part : parts)
        for (const QString& id : {part, part.toLower()})
            if (!nameForId(id).isEmpty()) return id;
    // Toolkits name the instance after the program, which an entry without StartupWMClass
    // still gives in its Exec= (Debian's GIMP 2.10: "gimp-2.10"); what Plasma's task manager
    // finds from the window's process.
    return programs_.value(instance);
}

QString DesktopEntries::idForWindowClass(const QString& windowClass) {
    load();
    if (windowClass.isEmpty()) return {};
    if (const auto it = classes_.constFind(windowClass); it != classes_.constEnd()) return it.value();
    for (auto it = classes_.constBegin(); it != classes_.constEnd(); ++it)
        if (it.key().compare(windowClass, Qt::CaseInsensitive) == 0) return it.value();
    return {};
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
            QString id = QDir::cleanPath(path).mid(base.size());
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
    QHash<QString, QString> names;  // by key, the plain Name included
    QString wmClass, program;
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
        if (key.startsWith(QStringLiteral("Name")) && nameKeys_.contains(key))
            names.insert(key, unescape(value));
        else if (key == QStringLiteral("StartupWMClass"))
            wmClass = unescape(value);
        else if (key == QStringLiteral("Exec"))
            program = programOf(unescape(value));
        else if (key == QStringLiteral("Hidden"))
            hidden = value == QStringLiteral("true");
    }
    if (hidden) return;
    QString name;
    for (const QString& key : nameKeys_)
        if (name = names.value(key); !name.isEmpty()) break;
    names_.insert(id, name);
    if (!wmClass.isEmpty() && !classes_.contains(wmClass)) classes_.insert(wmClass, id);
    if (!program.isEmpty()) programs_.insert(program, programs_.contains(program) ? QString() : id);
}

QString desktopFileId(QString value) {
    value = value.trimmed();
    if (const qsizetype slash = value.lastIndexOf(u'/'); slash >= 0) value = value.mid(slash + 1);
    if (value.endsWith(QStringLiteral(".desktop"))) value.chop(8);
    return value;
}

ActiveWindow::Info describeWindow(DesktopEntries& entries, const QString& appId, std::int32_t pid,
                                  const QString& title) {
    ActiveWindow::Info info;
    info.bundleID = appId.isEmpty() ? QStringLiteral("unknown") : appId;
    if (!appId.isEmpty()) info.appName = entries.nameForId(appId);
    // An Xwayland window comes with its X class as app ID (KWin lower-cases it): the entry that
    // claims the class names it, as on X11.
    if (!appId.isEmpty() && info.appName.isEmpty()) {
        if (const QString claimed = entries.idForWindowClass(appId); !claimed.isEmpty()) {
            info.bundleID = claimed;
            info.appName = entries.nameForId(claimed);
        }
    }
    if (info.appName.isEmpty()) info.appName = info.bundleID;
    info.pid = pid;
    info.windowTitle = title;
    return info;
}

}  // namespace corvi
