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
    if (node.value("app_id").toString() == appId && node.value("name").toString() == name &&
        (!focused || node.value("focused").toBool()))
        return true;
    for (const char* key : {"nodes", "floating_nodes"})
        for (const QJsonValue& child : node.value(QLatin1String(key)).toArray())
            if (holds(child.toObject(), appId, name, focused)) return true;
    return false;
}

}  // namespace

SwayCompositor::SwayCompositor() {
    const QString dir = dir_.path();
    writeFile(dir + "/config",
              "output HEADLESS-1 resolution 1024x768\n"
              "default_border none\n");
    if (!giveToNobody(dir) || !giveToNobody(dir + "/config")) return;

    QProcessEnvironment env;
    env.insert("PATH", qEnvironmentVariable("PATH"));
    env.insert("HOME", dir);
    env.insert("XDG_RUNTIME_DIR", dir);
    env.insert("WLR_BACKENDS", "headless");
    env.insert("WLR_LIBINPUT_NO_DEVICES", "1");
    env.insert("WLR_RENDERER", "pixman");
    compositor_.setStandardOutputFile(dir + "/sway.log");
    compositor_.setStandardErrorFile(dir + "/sway.log");
    if (!startCompositor(asNobody("sway", {"-c", dir + "/config"}), env)) return;

    // Both sockets appear once sway is ready for clients.
    waitFor(
        [&] {
            const QDir d(dir);
            const QStringList wayland =
                d.entryList({"wayland-*"}, QDir::System).filter(QRegularExpression("^wayland-\\d+$"));
            const QStringList ipc = d.entryList({"sway-ipc.*.sock"}, QDir::System);
            if (wayland.isEmpty() || ipc.isEmpty()) return !running();
            socket_ = d.filePath(wayland.first());
            ipc_ = d.filePath(ipc.first());
            return true;
        },
        10000);
}

QProcessEnvironment SwayCompositor::clientEnvironment() const {
    QProcessEnvironment env;
    env.insert("PATH", qEnvironmentVariable("PATH"));
    env.insert("HOME", dir_.path());
    env.insert("LANG", "C.UTF-8");
    env.insert("XDG_RUNTIME_DIR", dir_.path());
    env.insert("WAYLAND_DISPLAY", socket_);
    env.insert("SWAYSOCK", ipc_);
    return env;
}

bool SwayCompositor::run(const QString& program, const QStringList& args, QByteArray* out) const {
    return runToEnd(asNobody(program, args), clientEnvironment(), out);
}

bool SwayCompositor::waitForWindow(const QString& appId, const QString& title, bool focused, int ms) const {
    QByteArray tree;
    return waitFor(
        [&] {
            return run("swaymsg", {"-r", "-t", "get_tree"}, &tree) &&
                   holds(QJsonDocument::fromJson(tree).object(), appId, title, focused);
        },
        ms);
}

}  // namespace corvi::test
