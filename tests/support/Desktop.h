#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

#include "support/DBusDaemon.h"
#include "support/XServer.h"

namespace corvi::test {

// A private X desktop as a person has it: Xvfb with openbox, a session bus (knowing only the
// `activatable` stand-ins, see DBusDaemon), a tray when asked for, and xdotool to type and
// press keys. A GUI test program runs inside one (see GuiMain).
class Desktop {
  public:
    explicit Desktop(const QStringList& activatable = {});
    ~Desktop();
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    bool ok() const { return x_.ok() && bus_.ok(); }
    QString display() const { return x_.display(); }
    const DBusDaemon& bus() const { return bus_; }
    // A client's environment here: the display, xcb for Qt, the session bus.
    QProcessEnvironment environment() const;
    // Makes this process a client of this desktop; must run before the application object
    // exists. entered() answers it afterwards.
    void enter();
    static Desktop* entered();

    // trayer, docked at the top; it runs until stopTray() or the desktop's end.
    void startTray();
    void stopTray();

    // xdotool's output, trimmed.
    QString xdotool(const QStringList& args) const;
    // The first visible window titled exactly `title` (no regular expression characters), or empty.
    QString shownWindow(const QString& title) const;
    // Waits for a window titled `title` (other than `except`) to come to the front, then types
    // `text` and presses `keys` there as a person would; answers its id, empty when none came.
    QString answer(const QString& title, const QString& text, const QStringList& keys,
                   const QString& except = {}) const;

  private:
    XServer x_;
    DBusDaemon bus_;
    QProcess tray_;
};

}  // namespace corvi::test
