#include "support/DBusDaemon.h"

#include <QFile>

#include "support/ChildProcess.h"
#include "support/TestFiles.h"

namespace corvi::test {
namespace {

QStringList daemonArguments(QTemporaryDir* services, const QStringList& activatable) {
    const QStringList common{"--nofork", "--nopidfile", "--print-address=1"};
    if (!services) return QStringList{"--session"} + common;
    const QString folder = services->filePath("services");
    for (const QString& name : activatable)
        writeFile(folder + u'/' + name + ".service",
                  QStringLiteral("[D-BUS Service]\nName=%1\nExec=/bin/sh -c 'echo %1 >> %2'\n")
                      .arg(name, services->filePath("started"))
                      .toUtf8());
    // A session bus whose only service folder is the stand-ins'.
    const QString config = services->filePath("bus.conf");
    writeFile(config,
              QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                             "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/"
                             "busconfig.dtd\">\n<busconfig><type>session</type>"
                             "<listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
                             "<servicedir>%1</servicedir><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n")
                  .arg(folder)
                  .toUtf8());
    return QStringList{"--config-file=" + config} + common;
}

}  // namespace

DBusDaemon::DBusDaemon(const QStringList& activatable)
    : services_(activatable.isEmpty() ? nullptr : std::make_unique<QTemporaryDir>()),
      address_(startForFirstLine(daemon_, "dbus-daemon", daemonArguments(services_.get(), activatable))) {}

DBusDaemon::~DBusDaemon() {
    stop(daemon_);
}

QStringList DBusDaemon::started() const {
    if (!services_) return {};
    return QString::fromUtf8(readFile(services_->filePath("started"))).split(u'\n', Qt::SkipEmptyParts);
}

QStringList desktopServiceNames() {
    return {"org.freedesktop.ScreenSaver",
            "org.gnome.ScreenSaver",
            "org.mate.ScreenSaver",
            "org.cinnamon.ScreenSaver",
            "org.gnome.Mutter.IdleMonitor",
            "org.gnome.Shell",
            "org.kde.KWin"};
}

}  // namespace corvi::test
