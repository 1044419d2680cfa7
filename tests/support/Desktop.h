#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

#include "support/ChildProcess.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/XServer.h"

namespace corvi::test {

// A private X desktop as a person has it: Xvfb with openbox, a session bus (knowing only the
// `activatable` stand-ins, see DBusDaemon), a tray when asked for, and xdotool to type and
// press keys. A GUI test program runs inside one (see GuiMain).
class Desktop {
  public:
    explicit Desktop(const QStringList& activatable = {}) : bus_(activatable) {
        tray_.setProcessEnvironment(environment());
    }
    ~Desktop() {
        stopTray();
        if (entered_ == this) entered_ = nullptr;
    }

    bool ok() const { return x_.ok() && bus_.ok(); }
    QString display() const { return x_.display(); }
    const DBusDaemon& bus() const { return bus_; }
    // A client's environment here: the display, xcb for Qt, the session bus.
    QProcessEnvironment environment() const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove("WAYLAND_DISPLAY");
        env.insert("DISPLAY", x_.display());
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("DBUS_SESSION_BUS_ADDRESS", bus_.address());
        return env;
    }
    // Makes this process a client of this desktop; must run before the application object
    // exists. entered() answers it afterwards.
    void enter() {
        qputenv("DISPLAY", x_.display().toLocal8Bit());
        qputenv("QT_QPA_PLATFORM", "xcb");
        bus_.becomeSessionBus();
        entered_ = this;
    }
    static Desktop* entered() { return entered_; }

    // trayer, docked at the top, until stopTray() or the desktop's end.
    void startTray() {
        tray_.start("trayer", {"--edge", "top", "--SetDockType", "true", "--widthtype", "request"});
    }
    void stopTray() { stop(tray_); }

    QString xdotool(const QStringList& args) const {
        QByteArray out;
        runToEnd(QStringList{"xdotool"} + args, environment(), &out);
        return QString::fromUtf8(out).trimmed();
    }
    // The first visible window titled exactly `title` (no regular expression characters), or empty.
    QString shownWindow(const QString& title) const {
        return xdotool({"search", "--onlyvisible", "--name", '^' + title + '$'}).section('\n', 0, 0);
    }
    // Waits for a window titled `title` (other than `except`) to come to the front, then types
    // `text` and presses `keys` there as a person would; answers its id, empty when none came.
    QString answer(const QString& title, const QString& text, const QStringList& keys,
                   const QString& except = {}) const {
        QString id;
        if (!waitFor([&] { return !(id = shownWindow(title)).isEmpty() && id != except; }, 10000) ||
            !waitFor([&] { return xdotool({"getactivewindow"}) == id; }, 3000))
            return {};
        if (!text.isEmpty()) xdotool({"type", "--delay", "30", text});
        xdotool(QStringList{"key"} + keys);
        return id;
    }

  private:
    inline static Desktop* entered_ = nullptr;
    XServer x_;
    DBusDaemon bus_;
    QProcess tray_;
};

}  // namespace corvi::test
