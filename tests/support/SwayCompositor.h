#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include "support/WaylandClients.h"

namespace corvi::test {

// A headless sway of its own (wlroots 0.15 on Debian 12). sway refuses root, so as root it
// and its clients run as nobody, with a runtime folder that nobody owns; root still reaches
// the sockets. Ends with the object.
class SwayCompositor : public WaylandDesktop {
  public:
    SwayCompositor();

    bool ok() const { return !socket_.isEmpty(); }
    // The Wayland socket's full path, usable as WAYLAND_DISPLAY.
    QString socket() const { return socket_; }
    // sway's IPC socket, as SWAYSOCK names it.
    QString ipcSocket() const { return ipc_; }
    QProcessEnvironment clientEnvironment() const override;

    // Runs a program in the session to its end (swaymsg, wtype); true when it exited with 0.
    bool run(const QString& program, const QStringList& args, QByteArray* out = nullptr) const;
    // Waits until sway shows a window (or, with no app ID, a workspace) with this app ID and
    // title, holding the focus if asked.
    bool waitForWindow(const QString& appId, const QString& title, bool focused = true, int ms = 10000) const;

  protected:
    bool clientsAsNobody() const override { return true; }

  private:
    QString socket_;
    QString ipc_;
};

}  // namespace corvi::test
