#include "support/KWinCompositor.h"

#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi::test {

KWinCompositor::KWinCompositor(const QString& busAddress)
    : busAddress_(busAddress),
      bus_(QDBusConnection::connectToBus(busAddress, QStringLiteral("kwin-fixture-%1").arg(quintptr(this)))),
      runtimeDir_(dir_.filePath("runtime")),
      socket_("wayland-kwin-test"),
      program_(dir_.filePath("kwin_wayland")) {
    QDir().mkpath(runtimeDir_);
    // KWin offers its fake input protocol only to a program a desktop entry lists it for.
    // KDE Frameworks 6 indexes only the entries an applications menu takes in (Plasma ships
    // one); this one takes all.
    writeFile(dir_.filePath("config/menus/applications.menu"),
              "<Menu><Name>Applications</Name><DefaultAppDirs/><Include><All/></Include></Menu>\n");
    writeFile(
        dir_.filePath("share/applications/corvi-test-fake-input.desktop"),
        "[Desktop Entry]\nType=Application\nName=Fake input\nNoDisplay=true\nExec=" CORVI_TEST_KWIN_FAKE_INPUT
        "\nX-KDE-Wayland-Interfaces=org_kde_kwin_fake_input\n");
    QFile::setPermissions(runtimeDir_, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    // KWin 6 puts its X socket in the folder systemd-tmpfiles makes at boot, and gives up on
    // Xwayland without it; a container's fresh /tmp has none.
    if (::mkdir("/tmp/.X11-unix", 01777) == 0) ::chmod("/tmp/.X11-unix", 01777);
    // Debian 12 gives kwin_wayland the CAP_SYS_RESOURCE file capability (Debian 13
    // CAP_SYS_NICE); where the bounding set lacks it (a container), exec fails with EPERM.
    // A copy carries no capability.
    QFile::copy(QStandardPaths::findExecutable("kwin_wayland"), program_);
    start();
}

KWinCompositor::~KWinCompositor() {
    stop(compositor_);
    QDBusConnection::disconnectFromBus(bus_.name());
}

bool KWinCompositor::start() {
    ok_ = false;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"WAYLAND_DISPLAY", "DISPLAY", "QT_QPA_PLATFORM", "XDG_SESSION_TYPE"})
        env.remove(QString::fromLatin1(name));
    env.insert("XDG_RUNTIME_DIR", runtimeDir_);
    env.insert("HOME", dir_.path());
    env.insert("XDG_CONFIG_HOME", dir_.filePath("config"));
    env.insert("XDG_DATA_HOME", dir_.filePath("share"));
    env.insert("DBUS_SESSION_BUS_ADDRESS", busAddress_);
    // Software rendering either way; QPainter costs the shared machine less than llvmpipe.
    env.insert("KWIN_COMPOSE", "Q");
    compositor_.setProcessChannelMode(QProcess::MergedChannels);
    if (!startCompositor(
            {program_, "--virtual", "--xwayland", "--socket", socket_, "--width", "1024", "--height", "768"},
            env)) {
        error_ = program_ + ": " + compositor_.errorString();
        return false;
    }
    // Ready once the socket exists and the scripting interface answers.
    auto ask = QDBusMessage::createMethodCall("org.kde.KWin", "/Scripting", "org.kde.kwin.Scripting",
                                              "isScriptLoaded");
    ask << "-";
    ok_ = waitFor(
              [&] {
                  return !running() ||
                         (QFile::exists(runtimeDir_ + u'/' + socket_) &&
                          bus_.call(ask, QDBus::Block, 1000).type() == QDBusMessage::ReplyMessage);
              },
              30000) &&
          running();
    if (ok_) return true;
    compositor_.waitForFinished(100);
    error_ = "kwin_wayland did not come up: " + QString::fromLocal8Bit(compositor_.readAll().right(2000));
    stop(compositor_);
    return false;
}

int KWinCompositor::loadScript(const QString& file, const QString& pluginName) {
    auto load =
        QDBusMessage::createMethodCall("org.kde.KWin", "/Scripting", "org.kde.kwin.Scripting", "loadScript");
    load << file << pluginName;
    // A script of that name being unloaded still holds it until KWin deletes it.
    int id = -1;
    waitFor(
        [&] {
            if (id >= 0) return true;  // waitFor asks once more at the end
            const QDBusMessage reply = bus_.call(load, QDBus::Block, 5000);
            return reply.type() != QDBusMessage::ReplyMessage ||
                   (id = reply.arguments().value(0).toInt()) >= 0;
        },
        2000);
    if (id < 0) return -1;
    // KWin 6 places a script at /Scripting/Script<id>, KWin 5 at /<id>.
    for (const QString path : {"/Scripting/Script%1", "/%1"}) {
        const auto run =
            QDBusMessage::createMethodCall("org.kde.KWin", path.arg(id), "org.kde.kwin.Script", "run");
        if (bus_.call(run, QDBus::Block, 5000).type() == QDBusMessage::ReplyMessage) break;
    }
    return id;
}

void KWinCompositor::unloadScript(const QString& pluginName) {
    auto unload = QDBusMessage::createMethodCall("org.kde.KWin", "/Scripting", "org.kde.kwin.Scripting",
                                                 "unloadScript");
    unload << pluginName;
    bus_.call(unload, QDBus::Block, 5000);
}

bool KWinCompositor::fakeInput() {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("WAYLAND_DISPLAY", socketPath());
    return runToEnd({QStringLiteral(CORVI_TEST_KWIN_FAKE_INPUT)}, env);
}

QProcessEnvironment KWinCompositor::clientEnvironment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("DISPLAY");
    env.insert("WAYLAND_DISPLAY", socket_);
    env.insert("XDG_RUNTIME_DIR", runtimeDir_);
    return env;
}

ClientWindow KWinCompositor::openXTerm(const QString& title) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("WAYLAND_DISPLAY");
    env.insert("DISPLAY", xDisplay());
    return ClientWindow("xterm", {"-name", "noentryterm", "-class", "NoEntryTerm", "-T", title, "-e", "cat"},
                        env);
}

int KWinCompositor::majorVersion() const {
    QByteArray version;  // "kwin 6.3.6"
    runToEnd({program_, "--version"}, QProcessEnvironment::systemEnvironment(), &version);
    return QString::fromLatin1(version).section(u' ', 1).section(u'.', 0, 0).toInt();
}

// The display of the X socket KWin listens on, found by the lock file KWin writes its pid in:
// KWin 6 starts Xwayland only when the first X client connects to it.
QString KWinCompositor::xDisplay() const {
    const QByteArray pid = QByteArray::number(compositor_.processId());
    QString display;
    waitFor(
        [&] {
            for (const QString& lock : QDir("/tmp").entryList({".X*-lock"}, QDir::Files | QDir::Hidden))
                if (readFile("/tmp/" + lock).trimmed() == pid) display = u':' + lock.mid(2).chopped(5);
            return !display.isEmpty();
        },
        10000);
    return display;
}

}  // namespace corvi::test
