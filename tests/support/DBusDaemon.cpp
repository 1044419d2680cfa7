#include "support/DBusDaemon.h"

#include <QElapsedTimer>

namespace corvi::test {

DBusDaemon::DBusDaemon() : daemon_(std::make_unique<QProcess>()) {
    daemon_->start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                    QStringLiteral("--print-address=1")});
    if (!daemon_->waitForStarted(5000)) return;
    QByteArray out;
    QElapsedTimer clock;
    clock.start();
    while (!out.contains('\n') && clock.elapsed() < 10000 && daemon_->state() == QProcess::Running) {
        daemon_->waitForReadyRead(200);
        out += daemon_->readAllStandardOutput();
    }
    address_ = QString::fromUtf8(out.trimmed());
}

DBusDaemon::~DBusDaemon() {
    if (daemon_->state() != QProcess::NotRunning) {
        daemon_->terminate();
        if (!daemon_->waitForFinished(3000)) daemon_->kill();
        daemon_->waitForFinished(3000);
    }
}

void DBusDaemon::becomeSessionBus() const {
    qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toUtf8());
}

void DBusDaemon::becomeSystemBus() const {
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", address_.toUtf8());
}

}  // namespace corvi::test
