#include "support/Desktop.h"

#include "support/ChildProcess.h"
#include "support/EventLoop.h"

namespace corvi::test {
namespace {

Desktop* enteredDesktop = nullptr;

}  // namespace

Desktop::Desktop(const QStringList& activatable) : bus_(activatable) {
    tray_.setProcessEnvironment(environment());
}

Desktop::~Desktop() {
    stopTray();
    if (enteredDesktop == this) enteredDesktop = nullptr;
}

QProcessEnvironment Desktop::environment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.insert(QStringLiteral("DISPLAY"), x_.display());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus_.address());
    return env;
}

void Desktop::enter() {
    qputenv("DISPLAY", x_.display().toLocal8Bit());
    qputenv("QT_QPA_PLATFORM", "xcb");
    bus_.becomeSessionBus();
    enteredDesktop = this;
}

Desktop* Desktop::entered() {
    return enteredDesktop;
}

void Desktop::startTray() {
    tray_.start(QStringLiteral("trayer"),
                {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--SetDockType"),
                 QStringLiteral("true"), QStringLiteral("--widthtype"), QStringLiteral("request")});
}

void Desktop::stopTray() {
    if (tray_.state() != QProcess::NotRunning) stop(tray_);
}

QString Desktop::xdotool(const QStringList& args) const {
    QProcess p;
    p.setProcessEnvironment(environment());
    p.start(QStringLiteral("xdotool"), args);
    p.waitForFinished(5000);
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

QString Desktop::shownWindow(const QString& title) const {
    return xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                    u'^' + title + u'$'})
        .section(u'\n', 0, 0);
}

QString Desktop::answer(const QString& title, const QString& text, const QStringList& keys,
                        const QString& except) const {
    QString id;
    if (!waitFor([&] { return !(id = shownWindow(title)).isEmpty() && id != except; }, 10000) ||
        !waitFor([&] { return xdotool({QStringLiteral("getactivewindow")}) == id; }, 3000))
        return {};
    if (!text.isEmpty())
        xdotool({QStringLiteral("type"), QStringLiteral("--delay"), QStringLiteral("30"), text});
    xdotool(QStringList{QStringLiteral("key")} + keys);
    return id;
}

}  // namespace corvi::test
