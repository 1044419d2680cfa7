#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <map>

#include "support/DBusDaemon.h"
#include "support/WaylandClients.h"

namespace corvi::test {

// A headless GNOME Shell of its own for tests: private session and system buses, a private
// home, runtime folder and in-memory settings, a virtual monitor, Wayland only. Extensions are
// looked for in `extensionData` (a data folder, as in XDG_DATA_DIRS); `entries` are desktop
// entries (ID → file text) in the private data home; the session bus knows only the
// `activatable` stand-ins when given (see DBusDaemon). Everything is stopped when it goes.
class GnomeShell : public WaylandDesktop {
  public:
    explicit GnomeShell(const QString& extensionData, const std::map<QString, QByteArray>& entries = {},
                        const QStringList& activatable = {});
    ~GnomeShell() override;

    bool ok() const { return ok_; }
    // The Shell's own output, for a failure's message.
    QString log() const;
    QString dataHome() const { return dir_.filePath("data"); }
    // A connection to the private session bus, and the bus itself.
    QDBusConnection bus() const;
    const DBusDaemon& sessionBus() const { return session_; }
    QProcessEnvironment clientEnvironment() const override;

    // Enables or disables our extension the way the Extensions app does, and waits until its
    // bus name is owned, or not, accordingly.
    bool setExtensionEnabled(bool enabled);
    // Pauses or resumes the Shell (SIGSTOP, SIGCONT).
    void pause(bool paused);

  private:
    DBusDaemon session_;
    DBusDaemon system_;
    bool ok_ = false;
};

}  // namespace corvi::test
