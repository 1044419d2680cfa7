#include "support/GnomeShell.h"

#include <signal.h>
#include <sys/stat.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QFile>

#include "platform/linux/gnome/GnomeShellExtension.h"
#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi::test {
namespace {

const QString kShellName = "org.gnome.Shell";

QDBusMessage shellCall(const QString& interface, const QString& method, const QVariantList& args) {
    QDBusMessage m = QDBusMessage::createMethodCall(kShellName, "/org/gnome/Shell", interface, method);
    m.setArguments(args);
    return m;
}

}  // namespace

GnomeShell::GnomeShell(const QString& extensionData, const std::map<QString, QByteArray>& entries,
                       const QStringList& activatable)
    : session_(activatable) {
    if (!session_.ok() || !system_.ok()) return;
    for (const char* sub : {"run", "home", "config", "cache"})
        QDir(dir_.path()).mkpath(QString::fromLatin1(sub));
    ::chmod(QFile::encodeName(dir_.filePath("run")).constData(), 0700);
    for (const auto& [id, text] : entries) writeFile(dataHome() + "/applications/" + id + ".desktop", text);

    // The session's own variables; activated programs (the Extensions app) get them too, so they
    // reach this Shell, as in a real session.
    const std::pair<const char*, QString> session[] = {
        {"XDG_RUNTIME_DIR", dir_.filePath("run")},
        {"HOME", dir_.filePath("home")},
        {"XDG_CONFIG_HOME", dir_.filePath("config")},
        {"XDG_CACHE_HOME", dir_.filePath("cache")},
        {"XDG_DATA_HOME", dataHome()},
        {"XDG_DATA_DIRS", extensionData + ":/usr/local/share:/usr/share"},
        {"GSETTINGS_BACKEND", "memory"},
        {"XDG_SESSION_TYPE", "wayland"},
        {"XDG_CURRENT_DESKTOP", "GNOME"},
    };
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    QMap<QString, QString> activation{{"WAYLAND_DISPLAY", "wayland-0"}};
    for (const auto& [name, value] : session) {
        env.insert(name, value);
        activation.insert(name, value);
    }
    env.insert("DBUS_SESSION_BUS_ADDRESS", session_.address());
    // The Shell will not start without a system bus; an empty one will do.
    env.insert("DBUS_SYSTEM_BUS_ADDRESS", system_.address());
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_ID", "XDG_SEAT"})
        env.remove(QString::fromLatin1(name));
    compositor_.setProcessChannelMode(QProcess::MergedChannels);
    compositor_.setStandardOutputFile(dir_.filePath("shell.log"));
    if (!startCompositor(
            {"gnome-shell", "--headless", "--wayland", "--no-x11", "--virtual-monitor", "1280x800"}, env))
        return;
    QDBusMessage update =
        QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "UpdateActivationEnvironment");
    qDBusRegisterMetaType<QMap<QString, QString>>();
    update << QVariant::fromValue(activation);
    bus().call(update);

    // Ready once the Shell answers on the bus and has shown the overview it starts in; the
    // overview holds the keyboard focus away from windows, so it is closed, and kept closed
    // until the end of the startup animation no longer reopens it.
    const bool up = waitFor(
        [&] { return running() && bus().interface()->isServiceRegistered(kShellName).value(); }, 30000);
    if (!up) return;
    const auto overviewActive = [&] {
        const QDBusMessage get = bus().call(
            shellCall("org.freedesktop.DBus.Properties", "Get", {"org.gnome.Shell", "OverviewActive"}));
        return get.type() == QDBusMessage::ReplyMessage &&
               get.arguments().value(0).value<QDBusVariant>().variant().toBool();
    };
    if (!waitFor(overviewActive, 30000)) return;
    QElapsedTimer closedFor;
    ok_ = waitFor(
        [&] {
            if (!overviewActive()) return closedFor.isValid() && closedFor.elapsed() >= 1000;
            bus().call(
                shellCall("org.freedesktop.DBus.Properties", "Set",
                          {"org.gnome.Shell", "OverviewActive", QVariant::fromValue(QDBusVariant(false))}));
            closedFor.start();
            return false;
        },
        30000);
}

GnomeShell::~GnomeShell() {
    pause(false);
    stop(compositor_);
    QDBusConnection::disconnectFromBus("gnome-shell-test");
}

QString GnomeShell::log() const {
    return QString::fromUtf8(readFile(dir_.filePath("shell.log")).right(4000));
}

QDBusConnection GnomeShell::bus() const {
    return QDBusConnection::connectToBus(session_.address(), "gnome-shell-test");
}

QProcessEnvironment GnomeShell::clientEnvironment() const {
    QProcessEnvironment env = compositor_.processEnvironment();
    env.insert("WAYLAND_DISPLAY", "wayland-0");
    return env;
}

bool GnomeShell::setExtensionEnabled(bool enabled) {
    const QString uuid = QString::fromLatin1(GnomeShellExtension::kUuid);
    const QString busName = QString::fromLatin1(GnomeShellExtension::kBusName);
    const QDBusMessage reply = bus().call(
        shellCall("org.gnome.Shell.Extensions", enabled ? "EnableExtension" : "DisableExtension", {uuid}));
    if (reply.type() != QDBusMessage::ReplyMessage || !reply.arguments().value(0).toBool()) return false;
    return waitFor([&] { return bus().interface()->isServiceRegistered(busName).value() == enabled; });
}

void GnomeShell::pause(bool paused) {
    if (running()) ::kill(pid_t(compositor_.processId()), paused ? SIGSTOP : SIGCONT);
}

}  // namespace corvi::test
