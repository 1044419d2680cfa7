#pragma once

#include <QDBusConnection>
#include <QObject>
#include <functional>
#include <optional>

#include "update/UpdateError.h"

namespace corvi {

// Hands a package file to PackageKit on the system bus, as the desktop's software centre
// does: CreateTransaction, then InstallFiles on that transaction, then its Finished signal
// (after any ErrorCode) tells the outcome. PackageKit asks polkit for the authorization.
class PackageKitInstaller : public QObject {
    Q_OBJECT
  public:
    using Done = std::function<void(std::optional<UpdateError>)>;

    // An empty bus address means the system bus; tests hand in a private one.
    explicit PackageKitInstaller(const QString& busAddress = {}, QObject* parent = nullptr);
    ~PackageKitInstaller() override;

    // `done` runs once, later, on this object's thread.
    void install(const QString& path, Done done);

  private slots:
    void onErrorCode(uint code, const QString& details);
    void onFinished(uint exit, uint runtime);

  private:
    void installOn(const QString& transaction, const QString& path);
    void finish(std::optional<UpdateError> error);

    QString connectionName_;
    QDBusConnection bus_;
    QString transaction_;
    QString errorDetails_;
    Done done_;
};

}  // namespace corvi
