#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

namespace corvi::test {

// A private dbus-daemon for tests, standing in for the session or the system bus. Stopped
// when the object goes. Given `activatable` names, the bus knows no installed service but
// these: stand-ins that only write their name down when the bus starts one, as it would
// start another desktop's locker or shell that is installed but not running.
class DBusDaemon {
  public:
    explicit DBusDaemon(const QStringList& activatable = {});
    ~DBusDaemon();
    DBusDaemon(const DBusDaemon&) = delete;
    DBusDaemon& operator=(const DBusDaemon&) = delete;

    bool ok() const { return !address_.isEmpty(); }
    QString address() const { return address_; }
    // The stand-ins the bus has started, in order.
    QStringList started() const;

    // Points the process's own session bus at this daemon. Must run before the process first
    // uses that bus: Qt keeps the first connection for the life of the process.
    void becomeSessionBus() const { qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toUtf8()); }

  private:
    std::unique_ptr<QTemporaryDir> services_;
    QProcess daemon_;
    QString address_;
};

// Every name the agent may ask on the session bus of some desktop: the screen savers, GNOME
// Shell with Mutter's idle monitor, and KWin.
QStringList desktopServiceNames();

}  // namespace corvi::test
