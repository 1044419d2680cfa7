#pragma once

#include <sys/types.h>
#include <QObject>
#include <QString>

class QFileSystemWatcher;
class QProcess;
class QTimer;

namespace corvi {

// Notices, without polling, when the installed program is replaced under the running agent (a
// package update: dpkg through PackageKit, apt or unattended-upgrades) or removed. A
// replacement counts only when the new file and its folder belong to root and nobody else may
// write them, so only an administrator can have put it there: that is what lets the agent
// restart into it without asking the quit gate. The new program must also start
// (`--version`), so a half-finished upgrade is waited for instead of restarted into.
class ProgramWatch : public QObject {
    Q_OBJECT
  public:
    struct Timing {
        int settleMs = 3000;  // quiet time after the last change: dpkg is done with the file
        int retryMs = 10000;  // a program that does not start yet (its libraries still unpacking)
        int retries = 30;
        int versionTimeoutMs = 10000;
    };

    explicit ProgramWatch(QString program, QObject* parent = nullptr);
    ProgramWatch(QString program, Timing timing, QObject* parent = nullptr);
    ~ProgramWatch() override;

  signals:
    // A new program that starts, and the version it reports (the same one, after a reinstall).
    void replaced(const QString& version);
    // The program is gone (the package was removed); said once.
    void removed();

  private:
    void changed();
    void check();
    void ask();

    const QString program_;
    const Timing timing_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    QFileSystemWatcher* watcher_;
    QTimer* settle_;
    QProcess* probe_ = nullptr;
    int tries_ = 0;
    bool removedSaid_ = false;
};

}  // namespace corvi
