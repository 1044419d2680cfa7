#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QString>
#include <memory>

#include "support/WaylandClients.h"

namespace corvi::test {

// A private KWin for tests: kwin_wayland on its virtual backend with Xwayland, on the given
// session bus, with its own runtime and config folders. Stopped when the object goes.
class KWinCompositor : public WaylandDesktop {
  public:
    explicit KWinCompositor(const QString& busAddress);
    ~KWinCompositor() override;

    // KWin runs and its scripting interface answers on the bus.
    bool ok() const { return ok_ && running(); }
    // Why it is not ok: the program's own words.
    QString error() const { return error_; }
    // The socket as an absolute path, for a client whose runtime folder is another.
    QString socketPath() const { return runtimeDir_ + u'/' + socket_; }

    QProcessEnvironment clientEnvironment() const override;
    // An X client on KWin's Xwayland: xterm named so no desktop entry matches it, its class
    // NoEntryTerm (KWin 6 finds the xterm package's entry by the name xterm).
    ClientWindow openXTerm(const QString& title);
    // The running KWin's major version (5, 6), 0 when unknown.
    int majorVersion() const;

    // Loads and runs a script file under a plugin name, as any session client may; answers
    // KWin's id for it, -1 when refused.
    int loadScript(const QString& file, const QString& pluginName);
    void unloadScript(const QString& pluginName);

    // Moves the pointer through KWin's fake input protocol, as a remote desktop tool would;
    // answers whether KWin took it.
    bool fakeInput();

    // Starts a new KWin on the same socket and bus; answers ok().
    bool start();

  protected:
    QString clientDir() const override { return runtimeDir_; }

  private:
    QString xDisplay() const;

    QString busAddress_;
    QDBusConnection bus_;
    QString runtimeDir_;
    QString socket_;
    QString program_;
    bool ok_ = false;
    QString error_;
};

}  // namespace corvi::test
