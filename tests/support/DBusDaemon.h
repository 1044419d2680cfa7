#pragma once

#include <QProcess>
#include <QString>

namespace corvi::test {

// A private dbus-daemon for tests, standing in for the session or the system bus. Stopped
// when the object goes.
class DBusDaemon {
  public:
    DBusDaemon();
    ~DBusDaemon();
    DBusDaemon(const DBusDaemon&) = delete;
    DBusDaemon& operator=(const DBusDaemon&) = delete;

    bool ok() const { return !address_.isEmpty(); }
    QString address() const { return address_; }

    // Points the process's own session bus at this daemon. Must run before the process first
    // uses that bus: Qt keeps the first connection for the life of the process.
    void becomeSessionBus() const { qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toUtf8()); }

  private:
    QProcess daemon_;
    QString address_;
};

}  // namespace corvi::test
