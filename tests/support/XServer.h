#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include "support/WaylandClients.h"

namespace corvi::test {

// A private X display for tests: a 1280x800 Xvfb on a free display number (it picks one itself
// through -displayfd) and, unless told otherwise, openbox as its window manager. Everything is
// stopped when the object goes. `serverArgs` go to Xvfb as they are (for example
// {"-extension", "X-Resource"} to run without an extension).
class XServer {
  public:
    explicit XServer(bool windowManager = true, const QStringList& serverArgs = {});
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    bool ok() const { return !display_.isEmpty(); }
    QString display() const { return display_; }  // ":N"

    // Ends the window manager and waits until the display has no EWMH manager.
    void stopWindowManager();
    // Ends Xvfb itself (to test a display that goes away).
    void stopServer();

  private:
    QProcess xvfb_;
    ClientWindow wm_;
    QString display_;
};

}  // namespace corvi::test
