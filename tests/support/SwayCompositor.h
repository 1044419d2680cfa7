#pragma once

#include <QHash>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <vector>

namespace corvi::test {

// A headless sway of its own (wlroots 0.15 on Debian 12) and the real clients that put
// windows on it. sway refuses root, so as root it and its clients run as nobody, with a
// runtime folder that nobody owns; root still reaches the sockets. Everything started here
// ends with the object.
class SwayCompositor {
  public:
    SwayCompositor();
    ~SwayCompositor();
    SwayCompositor(const SwayCompositor&) = delete;
    SwayCompositor& operator=(const SwayCompositor&) = delete;

    bool ok() const { return !socket_.isEmpty(); }
    // The Wayland socket's full path, usable as WAYLAND_DISPLAY.
    QString socket() const { return socket_; }
    // sway's IPC socket, as SWAYSOCK names it.
    QString ipcSocket() const { return ipc_; }

    // A client process in the compositor's session; nullptr when it did not start.
    QProcess* launch(const QString& program, const QStringList& args, const QStringList& extraEnv = {});
    // foot with this app ID and title, whose shell sets each line sent by setFootTitle() as
    // its title (OSC 2).
    QProcess* launchFoot(const QString& appId, const QString& title);
    bool setFootTitle(const QString& appId, const QString& title);
    // The test's Qt window (QT_QPA_PLATFORM=wayland): app ID, title, then a new title per
    // line written to its stdin.
    QProcess* launchQtWindow(const QString& appId, const QString& title);

    // swaymsg with these arguments; true when sway accepted the command.
    bool command(const QStringList& args);
    // Waits until sway shows a window (or, with no app ID, a workspace) with this app ID and
    // title, holding the focus if asked.
    bool waitForWindow(const QString& appId, const QString& title, bool focused = true, int ms = 10000);

    // Kills sway outright, as a crash would.
    void kill();

  private:
    QProcess* track(std::unique_ptr<QProcess> p);
    QStringList asUser(const QString& program, const QStringList& args) const;
    QProcessEnvironment clientEnv() const;

    QTemporaryDir runtime_;
    QString socket_;
    QString ipc_;
    QHash<QString, QString> fifos_;  // app ID → the fifo its foot reads titles from
    QProcess sway_;
    std::vector<std::unique_ptr<QProcess>> clients_;
};

}  // namespace corvi::test
