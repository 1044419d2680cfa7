#include "support/ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <QElapsedTimer>
#include <cerrno>

namespace corvi::test {

ChildProcess::ChildProcess(const std::function<void()>& body) {
    pid_ = fork();
    if (pid_ == 0) {
        body();
        _exit(0);
    }
}

ChildProcess::~ChildProcess() {
    end();
}

void ChildProcess::end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

void burnThenSleep(double seconds) {
    timespec ts{};
    for (;;) {
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        if (static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9 >= seconds) break;
    }
    for (;;) pause();
}

QString startForFirstLine(QProcess& process, const QString& program, const QStringList& args) {
    process.start(program, args);
    if (!process.waitForStarted(5000)) return {};
    QByteArray out;
    QElapsedTimer clock;
    clock.start();
    while (!out.contains('\n') && clock.elapsed() < 10000 && process.state() == QProcess::Running) {
        process.waitForReadyRead(200);
        out += process.readAllStandardOutput();
    }
    return QString::fromUtf8(out.trimmed());
}

void stop(QProcess& process, bool hard) {
    if (process.state() == QProcess::NotRunning) return;
    if (!hard) process.terminate();
    if (hard || !process.waitForFinished(3000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool runToEnd(const QStringList& command, const QProcessEnvironment& env, QByteArray* out) {
    QProcess p;
    p.setProcessEnvironment(env);
    p.start(command.first(), command.mid(1));
    const bool ok = p.waitForFinished(5000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
    if (out) *out = p.readAllStandardOutput();
    return ok;
}

}  // namespace corvi::test
