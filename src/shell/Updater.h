#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <optional>

#include "ui/UpdateDialog.h"
#include "update/Appcast.h"
#include "update/UpdateError.h"

class QTimer;

namespace corvi {

class AppModel;
class PackageDownload;
class PackageKitInstaller;

struct UpdaterSettings {
    QString feed;          // the appcast's address
    QByteArray publicKey;  // raw Ed25519 key, 32 bytes, that signs the packages
    QString runningVersion;
    // Scheduled checks run only for an installed program, which also needs https throughout.
    bool installed = false;
    QString settingsFile;  // the QSettings file that remembers the last check and a skipped version
    QString systemBus;     // empty: the system bus, where PackageKit lives
    int feedTimeoutMs = 30000;
    int downloadTimeoutMs = 120000;

    // The build's feed and key, this program's version and the agent's CorviAgent.conf.
    static UpdaterSettings fromBuild(bool installed);
};

// Checks the signed appcast at launch and every 24 hours (never more often than hourly) and
// reports a newer version through onUpdateAvailable, never with a window; a check the person
// starts shows the update window, through which the package is downloaded, verified and
// handed to PackageKit. Main thread only.
class Updater : public QObject {
    Q_OBJECT
  public:
    static constexpr int checkIntervalSeconds = 24 * 3600;
    static constexpr int minimumIntervalSeconds = 3600;

    Updater(UpdaterSettings settings, const AppModel& model, QObject* parent = nullptr);
    ~Updater() override;

    // A version that waits for the person, or none once an update session has ended. Always
    // called on a later turn of the event loop.
    std::function<void(std::optional<QString>)> onUpdateAvailable;

    // The foreground check, from the menu: shows the update window.
    void checkForUpdates();

    UpdateDialog* dialog() const { return dialog_; }
    // When the next scheduled check runs, in milliseconds from now; -1 when none will.
    int nextCheckInMs() const;

  private:
    using Found = std::function<void(std::optional<UpdateError>, std::optional<AppcastItem>)>;
    void scheduledCheck();
    void fetch(Found found);
    void offer(const AppcastItem& item);
    void install(const AppcastItem& item);
    void fail(const UpdateError& error);
    void endSession();
    void report(std::optional<QString> version);
    void armTimer(qint64 seconds);
    bool pt() const;

    const UpdaterSettings settings_;
    const AppModel& model_;
    QTimer* timer_ = nullptr;
    QPointer<UpdateDialog> dialog_;
    PackageDownload* download_ = nullptr;
    PackageKitInstaller* installer_ = nullptr;
    int session_ = 0;         // a foreground session's answers are dropped once it has ended
    bool announced_ = false;  // a background find waits for the person
};

}  // namespace corvi
