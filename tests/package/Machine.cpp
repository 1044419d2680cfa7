#include "Machine.h"

#include <signal.h>

#include <cstdio>

#include <QFile>

#include "support/EventLoop.h"

namespace corvi::test {
namespace {

qint64 onlyChild(qint64 pid) {
    QFile f(QString("/proc/%1/task/%1/children").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    const QList<QByteArray> list = f.readAll().simplified().split(' ');
    return list.size() == 1 ? list.first().toLongLong() : 0;
}

}  // namespace

Machine::Machine(const QStringList& options) {
    machine_.setProcessChannelMode(QProcess::MergedChannels);
    // The tree and its build stay in reach wherever they are (a clone under /tmp included).
    machine_.start(CORVI_MACHINE,
                   options + QStringList{"-b", CORVI_SOURCE_DIR, "-b", CORVI_BINARY_DIR, "--", "sh", "-c",
                                         "touch /run/machine/ready; exec sleep infinity"});
    qint64 unshare = 0;
    // The script runs unshare, whose one child is the namespace's first process.
    const bool found = waitFor(
        [&] {
            if (machine_.state() == QProcess::NotRunning) return true;
            unshare = onlyChild(machine_.processId());
            pid_ = unshare ? onlyChild(unshare) : 0;
            return pid_ > 0 && sh("test -e /run/machine/ready", false, 5000).status == 0;
        },
        60000);
    if (!found || machine_.state() == QProcess::NotRunning) {
        error_ = "the machine did not come up: " + QString::fromUtf8(machine_.readAll());
        pid_ = 0;
    }
}

Machine::~Machine() {
    // unshare --kill-child takes the whole namespace with it; the script then cleans up.
    if (const qint64 unshare = onlyChild(machine_.processId())) ::kill(pid_t(unshare), SIGKILL);
    if (!machine_.waitForFinished(20000)) machine_.kill();
    machine_.waitForFinished(5000);
}

QStringList Machine::enter(const QString& script, bool asUser) const {
    QStringList args{"-t",
                     QString::number(pid_),
                     "-m",
                     "-n",
                     "-p",
                     "-r",
                     "-w",
                     "--",
                     "env",
                     "-i",
                     "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                     "HOME=/root",
                     "LANG=C.UTF-8"};
    if (asUser) args << "as-user";
    return args << "sh"
                << "-c" << script;
}

Machine::Run Machine::sh(const QString& script, bool asUser, int timeoutMs) const {
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start("nsenter", enter(script, asUser));
    const bool done = p.waitForFinished(timeoutMs) && p.exitStatus() == QProcess::NormalExit;
    if (!done) p.kill();
    p.waitForFinished(2000);
    return {done ? p.exitCode() : -1, QString::fromUtf8(p.readAll())};
}

void Machine::spawn(QProcess& process, const QString& script, bool asUser) const {
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start("nsenter", enter(script, asUser));
}

QList<QStringList> Machine::query(const QString& path, const QString& sql) const {
    const Run r = sh("python3 - '" + path + "' '" + sql + R"(' <<'EOF'
import sqlite3, sys
for row in sqlite3.connect(sys.argv[1]).execute(sys.argv[2]): print("\t".join(map(str, row)))
EOF)",
                     true);
    QList<QStringList> rows;
    if (r.status == 0)
        for (const QString& line : r.out.split(u'\n', Qt::SkipEmptyParts)) rows << line.split(u'\t');
    return rows;
}

QString Machine::service(const QString& property) const {
    return sh("systemctl --user show -P " + property + " corviagent.service", true).out.trimmed();
}

QMap<qint64, int> Machine::sessions() const {
    QMap<qint64, int> rows;
    for (const QStringList& row :
         query("/home/studio/.local/share/CorviAgent/corvi.sqlite", "SELECT id, samples FROM sessions"))
        rows[row[0].toLongLong()] = row[1].toInt();
    return rows;
}

bool Machine::startDesktop(QProcess& screen) const {
    // -noreset: Xvfb resets when its last client leaves (xdpyinfo below), refusing clients meanwhile.
    spawn(screen, R"(Xvfb :7 -screen 0 1280x800x24 -nolisten tcp -noreset &
export DISPLAY=:7
# Clients that come before the display fail: a loaded machine may take more than a second.
for i in $(seq 300); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
openbox --sm-disable & trayer --edge top --SetDockType true --widthtype request & xterm -T poster.psd -e sleep infinity & wait)",
          true);
    if (waitFor(
            [&] {
                return sh(onDesktop + "xdotool search --onlyvisible --name '^poster.psd$'", true).status == 0;
            },
            60000))
        return true;
    // What ran and what the display held, for the log.
    const Run seen =
        sh(onDesktop + "ps -o pid,stat,etime,args -u studio; xwininfo -root -tree | head -40", true);
    std::fprintf(stderr, "the desktop never showed its window; its processes and windows:\n%s\n",
                 seen.out.toUtf8().constData());
    return false;
}

}  // namespace corvi::test
