#include "support/SwayCompositor.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"

namespace corvi::test {
namespace {

// Whether a get_tree node or one below it has this app ID and name (and the focus).
bool holds(const QJsonObject& node, const QString& appId, const QString& name, bool focused) {
    if (node.value(QStringLiteral("app_id")).toString() == appId &&
        node.value(QStringLiteral("name")).toString() == name &&
        (!focused || node.value(QStringLiteral("focused")).toBool()))
        return true;
    for (const char* key : {"nodes", "floating_nodes"})
        for (const QJsonValue& child : node.value(QLatin1String(key)).toArray())
            if (holds(child.toObject(), appId, name, focused)) return true;
    return false;
}

}  // namespace

SwayCompositor::SwayCompositor() {
    const QString dir = runtime_.path();
    writeFile(dir + QStringLiteral("/config"),
              "output HEADLESS-1 resolution 1024x768\n"
              "default_border none\n");
    if (!giveToNobody(dir) || !giveToNobody(dir + QStringLiteral("/config"))) return;

    QProcessEnvironment env;
    env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("HOME"), dir);
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir);
    env.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
    env.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
    env.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
    sway_.setProcessEnvironment(env);
    sway_.setStandardOutputFile(dir + QStringLiteral("/sway.log"));
    sway_.setStandardErrorFile(dir + QStringLiteral("/sway.log"));
    const QStringList args =
        asNobody(QStringLiteral("sway"), {QStringLiteral("-c"), dir + QStringLiteral("/config")});
    sway_.start(args.first(), args.mid(1));
    if (!sway_.waitForStarted(5000)) return;

    // Both sockets appear once sway is ready for clients.
    waitFor(
        [&] {
            const QDir d(dir);
            const QStringList wayland = d.entryList({QStringLiteral("wayland-*")}, QDir::System)
                                            .filter(QRegularExpression(QStringLiteral("^wayland-\\d+$")));
            const QStringList ipc = d.entryList({QStringLiteral("sway-ipc.*.sock")}, QDir::System);
            if (wayland.isEmpty() || ipc.isEmpty()) return sway_.state() != QProcess::Running;
            socket_ = d.filePath(wayland.first());
            ipc_ = d.filePath(ipc.first());
            return true;
        },
        10000);
}

SwayCompositor::~SwayCompositor() {
    stop(sway_);
}

QProcessEnvironment SwayCompositor::clientEnvironment() const {
    QProcessEnvironment env;
    env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("HOME"), runtime_.path());
    env.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime_.path());
    env.insert(QStringLiteral("WAYLAND_DISPLAY"), socket_);
    env.insert(QStringLiteral("SWAYSOCK"), ipc_);
    return env;
}

bool SwayCompositor::run(const QString& program, const QStringList& args, QByteArray* out) const {
    return runToEnd(asNobody(program, args), clientEnvironment(), out);
}

bool SwayCompositor::waitForWindow(const QString& appId, const QString& title, bool focused, int ms) const {
    QByteArray tree;
    return waitFor(
        [&] {
            return run(QStringLiteral("swaymsg"),
                       {QStringLiteral("-r"), QStringLiteral("-t"), QStringLiteral("get_tree")}, &tree) &&
                   holds(QJsonDocument::fromJson(tree).object(), appId, title, focused);
        },
        ms);
}

}  // namespace corvi::test
