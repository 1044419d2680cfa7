#include "support/SwayCompositor.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>

#include "support/ChildProcess.h"
#include "support/TestFiles.h"

namespace corvi::test {
namespace {

const passwd* unprivileged() {
    return getuid() == 0 ? getpwnam("nobody") : nullptr;
}

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
    const passwd* user = unprivileged();
    writeFile(dir + QStringLiteral("/config"),
              "output HEADLESS-1 resolution 1024x768\n"
              "default_border none\n");
    if (user) {
        for (const QString& path : {dir, dir + QStringLiteral("/config")})
            if (chown(QFile::encodeName(path).constData(), user->pw_uid, user->pw_gid) != 0) return;
    }

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
        asUser(QStringLiteral("sway"), {QStringLiteral("-c"), dir + QStringLiteral("/config")});
    sway_.start(args.first(), args.mid(1));
    if (!sway_.waitForStarted(5000)) return;

    // Both sockets appear once sway is ready for clients.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 10000 && sway_.state() == QProcess::Running) {
        const QDir d(dir);
        const QStringList wayland = d.entryList({QStringLiteral("wayland-*")}, QDir::System)
                                        .filter(QRegularExpression(QStringLiteral("^wayland-\\d+$")));
        const QStringList ipc = d.entryList({QStringLiteral("sway-ipc.*.sock")}, QDir::System);
        if (!wayland.isEmpty() && !ipc.isEmpty()) {
            socket_ = d.filePath(wayland.first());
            ipc_ = d.filePath(ipc.first());
            return;
        }
        QThread::msleep(20);
    }
}

SwayCompositor::~SwayCompositor() {
    for (auto& c : clients_) stop(*c);
    stop(sway_);
}

QStringList SwayCompositor::asUser(const QString& program, const QStringList& args) const {
    if (!unprivileged()) return QStringList{program} + args;
    return QStringList{QStringLiteral("setpriv"), QStringLiteral("--reuid=nobody"),
                       QStringLiteral("--regid=nogroup"), QStringLiteral("--clear-groups"), program} +
           args;
}

QProcessEnvironment SwayCompositor::clientEnv() const {
    QProcessEnvironment env;
    env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("HOME"), runtime_.path());
    env.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime_.path());
    env.insert(QStringLiteral("WAYLAND_DISPLAY"), socket_);
    env.insert(QStringLiteral("SWAYSOCK"), ipc_);
    return env;
}

QProcess* SwayCompositor::track(std::unique_ptr<QProcess> p) {
    if (!p->waitForStarted(5000)) return nullptr;
    clients_.push_back(std::move(p));
    return clients_.back().get();
}

QProcess* SwayCompositor::launch(const QString& program, const QStringList& args,
                                 const QStringList& extraEnv) {
    auto p = std::make_unique<QProcess>();
    QProcessEnvironment env = clientEnv();
    for (const QString& kv : extraEnv) env.insert(kv.section(u'=', 0, 0), kv.section(u'=', 1));
    p->setProcessEnvironment(env);
    p->setStandardOutputFile(QProcess::nullDevice());
    p->setStandardErrorFile(QProcess::nullDevice());
    const QStringList command = asUser(program, args);
    p->start(command.first(), command.mid(1));
    return track(std::move(p));
}

QProcess* SwayCompositor::launchFoot(const QString& appId, const QString& title) {
    const QString fifo = runtime_.filePath(QStringLiteral("title-%1.fifo").arg(fifos_.size()));
    const QByteArray path = QFile::encodeName(fifo);
    if (mkfifo(path.constData(), 0600) != 0) return nullptr;
    if (const passwd* user = unprivileged(); user && chown(path.constData(), user->pw_uid, user->pw_gid) != 0)
        return nullptr;
    fifos_.insert(appId, fifo);
    const QString shell =
        QStringLiteral("while :; do IFS= read -r t < '%1' && printf '\\033]2;%s\\033\\\\' \"$t\"; done")
            .arg(fifo);
    return launch(QStringLiteral("foot"),
                  {QStringLiteral("--app-id=") + appId, QStringLiteral("--title=") + title,
                   QStringLiteral("sh"), QStringLiteral("-c"), shell});
}

bool SwayCompositor::setFootTitle(const QString& appId, const QString& title) {
    const QString fifo = fifos_.value(appId);
    // The shell opens the fifo anew for each line; wait for it to be listening.
    QElapsedTimer clock;
    clock.start();
    int fd = -1;
    while ((fd = open(QFile::encodeName(fifo).constData(), O_WRONLY | O_NONBLOCK)) < 0 &&
           clock.elapsed() < 5000)
        QThread::msleep(10);
    if (fd < 0) return false;
    const QByteArray line = title.toUtf8() + '\n';
    const bool ok = write(fd, line.constData(), static_cast<size_t>(line.size())) == line.size();
    close(fd);
    return ok;
}

QProcess* SwayCompositor::launchQtWindow(const QString& appId, const QString& title) {
    auto p = std::make_unique<QProcess>();
    QProcessEnvironment env = clientEnv();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));
    p->setProcessEnvironment(env);
    p->setStandardOutputFile(QProcess::nullDevice());
    p->setStandardErrorFile(QProcess::nullDevice());
    const QStringList command = asUser(QStringLiteral(CORVI_WAYLAND_WINDOW), {appId, title});
    p->start(command.first(), command.mid(1));
    return track(std::move(p));
}

bool SwayCompositor::command(const QStringList& args) {
    QProcess msg;
    msg.setProcessEnvironment(clientEnv());
    const QStringList command = asUser(QStringLiteral("swaymsg"), args);
    msg.start(command.first(), command.mid(1));
    return msg.waitForFinished(5000) && msg.exitStatus() == QProcess::NormalExit && msg.exitCode() == 0;
}

bool SwayCompositor::waitForWindow(const QString& appId, const QString& title, bool focused, int ms) {
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms) {
        QProcess msg;
        msg.setProcessEnvironment(clientEnv());
        const QStringList command =
            asUser(QStringLiteral("swaymsg"),
                   {QStringLiteral("-r"), QStringLiteral("-t"), QStringLiteral("get_tree")});
        msg.start(command.first(), command.mid(1));
        if (msg.waitForFinished(5000)) {
            if (holds(QJsonDocument::fromJson(msg.readAllStandardOutput()).object(), appId, title, focused))
                return true;
        }
        QThread::msleep(50);
    }
    return false;
}

void SwayCompositor::kill() {
    sway_.kill();
    sway_.waitForFinished(5000);
}

}  // namespace corvi::test
