#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

#include "support/ChildProcess.h"

namespace corvi::test {

// program + args, through setpriv as nobody when the tests run as root (for the programs that
// refuse root); as they are otherwise.
QStringList asNobody(const QString& program, const QStringList& args);
// Gives `path` to nobody when the tests run as root; false when that fails.
bool giveToNobody(const QString& path);

// A window a test opened, on any desktop; closed with the object.
class DesktopWindow {
  public:
    virtual ~DesktopWindow() = default;
    virtual std::int32_t pid() const = 0;
    // False when the client did not take the title.
    virtual bool setTitle(const QString& title) = 0;
};

// A real client window on a compositor, ended with the object: foot, whose shell sets each
// line written to a fifo as its title (OSC 2), the test's Qt window, which reads them on stdin,
// or any other program.
class ClientWindow : public DesktopWindow {
  public:
    enum Kind { Foot, Qt };
    ClientWindow() = default;
    // `env` is the compositor's client environment, `dir` a folder for foot's fifo.
    ClientWindow(Kind kind, const QProcessEnvironment& env, const QString& dir, const QString& appId,
                 const QString& title, bool nobody = false);
    ClientWindow(const QString& program, const QStringList& args, const QProcessEnvironment& env,
                 bool nobody = false);
    ClientWindow(ClientWindow&&) = default;
    ClientWindow& operator=(ClientWindow&&) = default;
    ~ClientWindow() override { close(); }

    bool ok() const { return process_ && process_->state() == QProcess::Running; }
    std::int32_t pid() const override { return process_ ? std::int32_t(process_->processId()) : 0; }
    bool setTitle(const QString& title) override;
    void close();

  private:
    QString fifo_;
    std::unique_ptr<QProcess> process_;
};

// What every compositor fixture offers its tests: the environment of a client in its session,
// and windows opened there. The compositor runs in a folder of its own until the object goes.
class WaylandDesktop {
  public:
    virtual ~WaylandDesktop() { stop(compositor_); }
    virtual QProcessEnvironment clientEnvironment() const = 0;
    ClientWindow open(ClientWindow::Kind kind, const QString& appId, const QString& title) const {
        return ClientWindow(kind, clientEnvironment(), clientDir(), appId, title, clientsAsNobody());
    }
    // Kills the compositor outright, as a crash would.
    void kill() { stop(compositor_, true); }

  protected:
    bool startCompositor(const QStringList& command, const QProcessEnvironment& env) {
        compositor_.setProcessEnvironment(env);
        compositor_.start(command.first(), command.mid(1));
        return compositor_.waitForStarted(5000);
    }
    bool running() const { return compositor_.state() == QProcess::Running; }
    virtual QString clientDir() const { return dir_.path(); }
    virtual bool clientsAsNobody() const { return false; }

    QTemporaryDir dir_;
    QProcess compositor_;
};

}  // namespace corvi::test
