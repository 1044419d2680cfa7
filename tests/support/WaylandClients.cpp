#include "support/WaylandClients.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>

#include "support/ChildProcess.h"
#include "support/EventLoop.h"

namespace corvi::test {
namespace {

const passwd* nobody() {
    return getuid() == 0 ? getpwnam("nobody") : nullptr;
}

}  // namespace

QStringList asNobody(const QString& program, const QStringList& args) {
    if (!nobody()) return QStringList{program} + args;
    return QStringList{"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", program} + args;
}

bool giveToNobody(const QString& path) {
    const passwd* user = nobody();
    return !user || chown(QFile::encodeName(path).constData(), user->pw_uid, user->pw_gid) == 0;
}

ClientWindow::ClientWindow(Kind kind, const QProcessEnvironment& env, const QString& dir,
                           const QString& appId, const QString& title, bool nobody) {
    if (kind == Qt) {
        QProcessEnvironment qt = env;
        qt.insert("QT_QPA_PLATFORM", "wayland");
        *this = ClientWindow(QStringLiteral(CORVI_WAYLAND_WINDOW), {appId, title}, qt, nobody);
        return;
    }
    static int count = 0;
    const QString fifo = QStringLiteral("%1/title-%2.fifo").arg(dir).arg(++count);
    if (mkfifo(QFile::encodeName(fifo).constData(), 0600) != 0 || (nobody && !giveToNobody(fifo))) return;
    // foot 1.21 trims the title given with --title, so the shell sets it again exactly, the way
    // it sets every later one.
    const QString osc = "printf '\\033]2;%s\\033\\\\' ";
    const QString shell = osc + QStringLiteral("\"$1\"; while :; do IFS= read -r t < '%1' && ").arg(fifo) +
                          osc + "\"$t\"; done";
    *this = ClientWindow("foot", {"--app-id=" + appId, "--title=" + title, "sh", "-c", shell, "sh", title},
                         env, nobody);
    fifo_ = fifo;
}

ClientWindow::ClientWindow(const QString& program, const QStringList& args, const QProcessEnvironment& env,
                           bool nobody)
    : process_(std::make_unique<QProcess>()) {
    process_->setProcessEnvironment(env);
    process_->setStandardOutputFile(QProcess::nullDevice());
    process_->setStandardErrorFile(QProcess::nullDevice());
    const QStringList command = nobody ? asNobody(program, args) : QStringList{program} + args;
    process_->start(command.first(), command.mid(1));
    process_->waitForStarted(5000);
}

bool ClientWindow::setTitle(const QString& title) {
    const QByteArray line = title.toUtf8() + '\n';
    if (fifo_.isEmpty())
        return process_ && process_->write(line) == line.size() && process_->waitForBytesWritten(1000);
    // The shell opens the fifo anew for each line; wait for it to be listening.
    int fd = -1;
    waitFor([&] {
        return fd >= 0 || (fd = open(QFile::encodeName(fifo_).constData(), O_WRONLY | O_NONBLOCK)) >= 0 ||
               !ok();
    });
    if (fd < 0) return false;
    const bool written = write(fd, line.constData(), size_t(line.size())) == line.size();
    ::close(fd);
    return written;
}

void ClientWindow::close() {
    if (process_) stop(*process_);
    process_.reset();
    if (!fifo_.isEmpty()) QFile::remove(fifo_);
    fifo_.clear();
}

}  // namespace corvi::test
