#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include "platform/ActiveWindow.h"

namespace corvi {

// The installed desktop entries, read once: which application ID a window belongs to and the
// display name of an application ID, in the first of the user's languages it has, else the
// plain Name=. Folders are searched in order and the first entry with a given ID wins, as the
// XDG menu rules have it.
class DesktopEntries {
  public:
    // The "applications" folders under $XDG_DATA_HOME, then each of $XDG_DATA_DIRS.
    static QStringList standardFolders();

    // The user's UI languages as POSIX locale names (lang_COUNTRY@MODIFIER), most preferred
    // first: the LANGUAGE list, as gettext reads it, else LC_ALL, LC_MESSAGES or LANG.
    static QStringList uiLanguages();

    explicit DesktopEntries(QStringList folders = standardFolders(),
                            const QStringList& languages = uiLanguages());

    // The entry of an X window by the two parts of its WM_CLASS, matched as desktops match
    // one: StartupWMClass, then the entry's ID, then the program its Exec= runs.
    QString idForWmClass(const QString& instance, const QString& windowClass);
    // The entry whose StartupWMClass equals the class in any letter case: an Xwayland window's
    // class as its app ID.
    QString idForWindowClass(const QString& windowClass);
    // Empty when the ID has no entry or no name, as are the look-ups above when nothing matches.
    QString nameForId(const QString& appId);

  private:
    void load();
    void readEntry(const QString& id, const QString& path);

    QStringList folders_;
    QStringList nameKeys_;  // Name[...] keys in the order they are preferred
    bool loaded_ = false;
    QHash<QString, QString> names_;     // ID → Name (empty for hidden entries)
    QHash<QString, QString> classes_;   // StartupWMClass → ID
    QHash<QString, QString> programs_;  // Exec's program → ID; empty when several entries run it
};

// A desktop file name or path as an application ID: its base name without ".desktop".
QString desktopFileId(QString value);

// A window known by its application ID, with the neutral values filled in: "unknown" without
// an ID, the entry's name for the ID, else the ID itself.
ActiveWindow::Info describeWindow(DesktopEntries& entries, const QString& appId, std::int32_t pid,
                                  const QString& title);

}  // namespace corvi
