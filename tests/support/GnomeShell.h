#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>
#include <map>
#include <memory>
#include <vector>

#include "support/DBusDaemon.h"

namespace corvi::test {

// A headless GNOME Shell of its own for tests: private session and system buses, a private
// home, runtime folder and in-memory settings, a virtual monitor, Wayland only. Extensions are
// looked for in `extensionData` (a data folder, as in XDG_DATA_DIRS); `entries` are desktop
// entries (ID → file text) in the private data home. Everything is stopped when it goes.
class GnomeShell {
  public:
    GnomeShell(const QString& extensionData, const std::map<QString, QByteArray>& entries);
    ~GnomeShell();
    GnomeShell(const GnomeShell&) = delete;
    GnomeShell& operator=(const GnomeShell&) = delete;

    bool ok() const { return ok_; }
    // The Shell's own output, for a failure's message.
    QString log() const;
    QString dataHome() const { return dir_.filePath(QStringLiteral("data")); }
    // A connection to the private session bus.
    QDBusConnection bus() const;
    // What a Wayland client of this Shell needs in its environment.
    QProcessEnvironment clientEnvironment() const;

    // Enables or disables an extension the way the Extensions app does, and waits until
    // `busName` is owned, or not, accordingly.
    bool setExtensionEnabled(const QString& uuid, bool enabled, const QString& busName);
    // Pauses or resumes the Shell (SIGSTOP, SIGCONT), or ends it at once.
    void pause(bool paused);
    void kill();

    // A foot terminal whose title follows the lines written to it.
    class Terminal {
      public:
        Terminal(const GnomeShell& shell, const QString& appId, const QString& title);
        ~Terminal();
        std::int32_t pid() const { return std::int32_t(process_.processId()); }
        void setTitle(const QString& title);
        void close();

      private:
        QString fifo_;
        QProcess process_;
    };

  private:
    QTemporaryDir dir_;
    DBusDaemon session_;
    DBusDaemon system_;
    QProcess shell_;
    bool ok_ = false;
};

}  // namespace corvi::test
