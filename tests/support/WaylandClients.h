#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <memory>

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
// and windows opened there.
class WaylandDesktop {
  public:
    virtual ~WaylandDesktop() = default;
    virtual QProcessEnvironment clientEnvironment() const = 0;
    ClientWindow open(ClientWindow::Kind kind, const QString& appId, const QString& title) const {
        return ClientWindow(kind, clientEnvironment(), clientDir(), appId, title, clientsAsNobody());
    }

  protected:
    virtual QString clientDir() const = 0;
    virtual bool clientsAsNobody() const { return false; }
};

}  // namespace corvi::test
