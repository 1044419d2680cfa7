#include "update/PackageKitInstaller.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QUuid>
#include <utility>

namespace corvi {
namespace {

const QString service = QStringLiteral("org.freedesktop.PackageKit");
const QString transactionInterface = QStringLiteral("org.freedesktop.PackageKit.Transaction");
constexpr uint exitSuccess = 1;
// Creating a transaction is quick; the install itself waits on the person's authorization.
constexpr int createTimeoutMs = 25000;

bool serviceAbsent(const QDBusError& e) {
    return e.type() == QDBusError::ServiceUnknown || e.type() == QDBusError::Disconnected ||
           e.name() == u"org.freedesktop.DBus.Error.NameHasNoOwner";
}

}  // namespace

PackageKitInstaller::PackageKitInstaller(const QString& busAddress, QObject* parent)
    : QObject(parent),
      connectionName_(busAddress.isEmpty() ? QString()
                                           : QStringLiteral("corvi-packagekit-") +
                                                 QUuid::createUuid().toString(QUuid::WithoutBraces)),
      bus_(busAddress.isEmpty() ? QDBusConnection::systemBus()
                                : QDBusConnection::connectToBus(busAddress, connectionName_)) {}

PackageKitInstaller::~PackageKitInstaller() {
    if (!connectionName_.isEmpty()) QDBusConnection::disconnectFromBus(connectionName_);
}

void PackageKitInstaller::install(const QString& path, Done done) {
    done_ = std::move(done);
    if (!bus_.isConnected()) {
        QMetaObject::invokeMethod(
            this,
            [this] {
                finish(UpdateError{UpdateError::Kind::installerMissing, {}});
            },
            Qt::QueuedConnection);
        return;
    }
    const QDBusMessage call = QDBusMessage::createMethodCall(
        service, QStringLiteral("/org/freedesktop/PackageKit"), service, QStringLiteral("CreateTransaction"));
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, createTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, path] {
        watcher->deleteLater();
        QDBusPendingReply<QDBusObjectPath> reply = *watcher;
        if (reply.isError()) {
            const QDBusError e = reply.error();
            return finish(serviceAbsent(e) ? UpdateError{UpdateError::Kind::installerMissing, {}}
                                           : UpdateError{UpdateError::Kind::installFailed, e.message()});
        }
        installOn(reply.value().path(), path);
    });
}

void PackageKitInstaller::installOn(const QString& transaction, const QString& path) {
    transaction_ = transaction;
    // Subscribed before the call, so no signal of this transaction can be missed.
    bus_.connect(service, transaction, transactionInterface, QStringLiteral("ErrorCode"), this,
                 SLOT(onErrorCode(uint, QString)));
    bus_.connect(service, transaction, transactionInterface, QStringLiteral("Finished"), this,
                 SLOT(onFinished(uint, uint)));
    auto* vanished =
        new QDBusServiceWatcher(service, bus_, QDBusServiceWatcher::WatchForUnregistration, this);
    connect(vanished, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        finish(UpdateError{UpdateError::Kind::installFailed, QStringLiteral("PackageKit stopped")});
    });

    QDBusMessage call = QDBusMessage::createMethodCall(service, transaction, transactionInterface,
                                                       QStringLiteral("InstallFiles"));
    // No "only trusted" flag: the package is trusted through its own signature, checked above.
    call << QVariant::fromValue(qulonglong(0)) << QStringList{path};
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call, createTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
        watcher->deleteLater();
        if (watcher->isError()) {
            const QDBusError e = watcher->error();
            finish(serviceAbsent(e) ? UpdateError{UpdateError::Kind::installerMissing, {}}
                                    : UpdateError{UpdateError::Kind::installFailed, e.message()});
        }
    });
}

void PackageKitInstaller::onErrorCode(uint, const QString& details) {
    errorDetails_ = details;
}

void PackageKitInstaller::onFinished(uint exit, uint) {
    if (exit == exitSuccess) return finish(std::nullopt);
    finish(UpdateError{UpdateError::Kind::installFailed,
                       errorDetails_.isEmpty() ? QStringLiteral("exit %1").arg(exit) : errorDetails_});
}

void PackageKitInstaller::finish(std::optional<UpdateError> error) {
    if (!transaction_.isEmpty()) {
        bus_.disconnect(service, transaction_, transactionInterface, QStringLiteral("ErrorCode"), this,
                        SLOT(onErrorCode(uint, QString)));
        bus_.disconnect(service, transaction_, transactionInterface, QStringLiteral("Finished"), this,
                        SLOT(onFinished(uint, uint)));
        transaction_.clear();
    }
    if (Done done = std::exchange(done_, nullptr)) done(error);
}

}  // namespace corvi
