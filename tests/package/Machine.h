#pragma once

#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace corvi::test {

// A throwaway copy of this machine (tests/support/machine): its own mount, network and PID
// namespaces over an overlay of /, a system bus, polkit and PackageKit, and a user "studio".
// Packages are really installed, upgraded and removed there; nothing reaches this machine.
// Needs root.
class Machine {
  public:
    struct Run {
        int status = -1;
        QString out;  // standard output and error, merged
    };

    // `options` go to the machine script (-m: the user's service manager, -p no: polkit refuses).
    explicit Machine(const QStringList& options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    bool ok() const { return pid_ > 0; }
    QString error() const { return error_; }

    // A shell script run inside, as root or as the user (with the user's session with -m).
    Run sh(const QString& script, bool asUser = false, int timeoutMs = 300000) const;
    // The same, left running in `process` (stopped by its owner or with the machine).
    void spawn(QProcess& process, const QString& script, bool asUser = false) const;
    // The user's desktop, left running in `screen`: Xvfb with openbox, a tray and a window
    // "poster.psd" in front (no shell in it, whose prompt would retitle it). False when it did
    // not show.
    bool startDesktop(QProcess& screen) const;
    // Put before a user's command that talks to that desktop.
    static inline const QString onDesktop = "export DISPLAY=:7 XDG_SESSION_TYPE=x11; ";
    // Every row `sql` answers from the SQLite file at `path` inside, read as the user; columns as
    // text. Empty when it cannot be read.
    QList<QStringList> query(const QString& path, const QString& sql) const;
    // A property of the user's agent service, as systemctl shows it; empty when it did not answer.
    QString service(const QString& property) const;
    // Samples stored per session id in the user's agent database.
    QMap<qint64, int> sessions() const;
    // A path inside, as seen from this machine (SQLite, which resolves links, cannot open it).
    QString outside(const QString& inside) const { return QString("/proc/%1/root%2").arg(pid_).arg(inside); }

  private:
    QStringList enter(const QString& script, bool asUser) const;

    QProcess machine_;
    qint64 pid_ = 0;  // the namespace's first process, as this machine numbers it
    QString error_;
};

}  // namespace corvi::test
