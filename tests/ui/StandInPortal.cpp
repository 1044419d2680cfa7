#include "StandInPortal.h"

#include <QDBusConnectionInterface>
#include <QMutexLocker>

namespace corvi::test {
namespace {

const QString kName = QStringLiteral("corvi-standin-portal");
const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");

}  // namespace

void StandInSettings::setAnswer(const QVariant& value, Wrap wrap) {
    QMutexLocker lock(&mutex_);
    value_ = value;
    wrap_ = wrap;
}

QDBusVariant StandInSettings::Read(const QString& ns, const QString& key, const QDBusMessage& message) {
    ++reads_;
    QMutexLocker lock(&mutex_);
    if (wrap_ == Wrap::NotFound || ns != "org.freedesktop.appearance" || key != "color-scheme") {
        message.setDelayedReply(true);
        QDBusConnection(connection_)
            .send(message.createErrorReply(QStringLiteral("org.freedesktop.portal.Error.NotFound"),
                                           QStringLiteral("Requested setting not found")));
        return {};
    }
    if (wrap_ == Wrap::Variant) return QDBusVariant(value_);
    return QDBusVariant(QVariant::fromValue(QDBusVariant(value_)));
}

StandInPortal::StandInPortal()
    : settings_(new StandInSettings(kName)),
      bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, kName)) {
    settings_->moveToThread(&thread_);
    QObject::connect(&thread_, &QThread::finished, settings_, &QObject::deleteLater);
    thread_.start();
    bus_.registerObject(kPath, settings_, QDBusConnection::ExportAllSlots);
}

StandInPortal::~StandInPortal() {
    stop();
    bus_.unregisterObject(kPath);
    QDBusConnection::disconnectFromBus(kName);
    thread_.quit();
    thread_.wait();
}

bool StandInPortal::start() {
    claimed_ = bus_.isConnected() && bus_.registerService(kService);
    return claimed_;
}

void StandInPortal::stop() {
    if (claimed_) bus_.unregisterService(kService);
    claimed_ = false;
}

void StandInPortal::emitSettingChanged(const QString& ns, const QString& key, const QVariant& value) {
    QDBusMessage signal = QDBusMessage::createSignal(kPath, QStringLiteral("org.freedesktop.portal.Settings"),
                                                     QStringLiteral("SettingChanged"));
    signal << ns << key << QVariant::fromValue(QDBusVariant(value));
    bus_.send(signal);
}

}  // namespace corvi::test
