#include <malloc.h>
#include <termios.h>
#include <unistd.h>

#include <QApplication>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "model/AppModel.h"
#include "platform/Display.h"
#include "platform/Log.h"
#include "platform/LoginItem.h"
#include "platform/Paths.h"
#include "shell/AgentBus.h"
#include "shell/AppDelegate.h"
#include "shell/InstanceLock.h"
#include "shell/SignalRelay.h"
#include "shell/Supervision.h"

namespace {

const char* const usage =
    "Usage: corviagent [--version | --help | --sign-in SERVER EMAIL]\n"
    "\n"
    "The Corvimetry desktop agent. It lives in the system tray, samples the foreground\n"
    "application every 3 seconds, keeps sessions in a local database and uploads them to\n"
    "the organisation's server. It needs a desktop session (X11 or Wayland).\n"
    "\n"
    "  --version               print the version and exit\n"
    "  --help                  print this text and exit\n"
    "  --sign-in SERVER EMAIL  sign in at SERVER with the company account EMAIL (the\n"
    "                          password is read from standard input), enroll this\n"
    "                          computer and keep the server and its key for the agent\n"
    "                          (the running agent does it when there is one)\n"
    "\n"
    "Started while the agent runs, it asks the running agent to show its settings.\n";

// One line from standard input, not echoed when it is a terminal.
QString readPassword() {
    termios saved{};
    const bool terminal = ::isatty(STDIN_FILENO) && ::tcgetattr(STDIN_FILENO, &saved) == 0;
    if (terminal) {
        std::fprintf(stderr, "Password: ");
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    std::string line;
    std::getline(std::cin, line);
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::fprintf(stderr, "\n");
    }
    return QString::fromStdString(line);
}

int reportSignIn(bool ok, const QString& text) {
    if (ok)
        std::printf("Enrolled with %s.\n", text.toUtf8().constData());
    else
        std::fprintf(stderr, "corviagent: %s\n",
                     (text.isEmpty() ? QStringLiteral("sign-in failed") : text).toUtf8().constData());
    return ok ? 0 : 1;
}

// Signs in and enrolls with no agent running: this process owns config.json for the moment.
int signIn(int argc, char** argv, const QString& server, const QString& email, const QString& password) {
    QCoreApplication app(argc, argv);
    corvi::AppModel model;
    model.load();
    std::optional<int> status;
    model.loginAndEnroll(server, email, password, [&](bool ok, std::optional<QString> message) {
        status = reportSignIn(ok, ok ? model.serverURL() : message.value_or(QString()));
        app.quit();
    });
    // A refusal can come before the loop runs (an address that does not parse); quit() then
    // would be lost.
    if (!status) app.exec();
    return status.value_or(1);
}

// Another start while the agent runs: the running agent does the work.
int askRunningAgent(int argc, char** argv, const corvi::InstanceLock& lock, const QString& server,
                    const QString& email) {
    const QString password = server.isEmpty() ? QString() : readPassword();
    QCoreApplication app(argc, argv);
    if (!server.isEmpty()) {
        if (const auto answer = corvi::AgentBus::askSignIn(server, email, password))
            return reportSignIn(answer->first, answer->second);
    } else if (corvi::AgentBus::askOpenSettings()) {
        return 0;
    }
    if (lock.holderPid() > 0)
        std::fprintf(stderr, "corviagent: already running for this user (pid %ld).\n", lock.holderPid());
    else
        std::fprintf(stderr, "corviagent: already running for this user.\n");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    QString signInServer;
    QString signInEmail;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("CorviAgent %s\n", corvi::AppModel::versaoCompleta().toUtf8().constData());
            return 0;
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(usage, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--sign-in") == 0 && i + 2 < argc) {
            signInServer = QString::fromLocal8Bit(argv[++i]);
            signInEmail = QString::fromLocal8Bit(argv[++i]);
            continue;
        }
        std::fprintf(stderr, "corviagent: unknown option %s\n%s", argv[i], usage);
        return 2;
    }

    // Taken before anything opens the database or the configuration.
    const auto mode = corvi::supervision::takeMode();
    QString program;
    int status = 0;
    {
        const QString lockPath = corvi::dataFolder() + QStringLiteral("/corviagent.lock");
        corvi::InstanceLock lock(lockPath);
        if (lock.heldElsewhere()) return askRunningAgent(argc, argv, lock, signInServer, signInEmail);
        // No lock file to be had is no sign of another agent. The agent runs as it does without
        // its database, measuring and saying why, rather than refuse to start: only a second
        // start is no longer kept out.
        if (!lock.acquired())
            corvi::Log::localFailure(QStringLiteral("CorviAgent: não é possível usar a trava ") + lockPath +
                                     QStringLiteral(": ") + corvi::Log::reason(lock.error()) +
                                     QStringLiteral("; uma segunda execução do agente não será impedida"));
        if (!signInServer.isEmpty()) return signIn(argc, argv, signInServer, signInEmail, readPassword());
        // The lock goes with the exec (close-on-exec): the service's agent takes it.
        const bool installed = corvi::platformLoginItem().installedProgram();
        corvi::supervision::handOver(mode, installed);
        // Before anything slow: a SIGTERM while the agent starts waits for the gate.
        corvi::SignalRelay::catchEarly({SIGTERM, SIGINT});

        QString why;
        if (!corvi::displayReachable(&why)) {
            std::fprintf(stderr, "corviagent: %s. The agent runs in a desktop session (X11 or Wayland).\n",
                         why.toLocal8Bit().constData());
            return 1;
        }

        // A quiet program with a few helper threads: one heap keeps it small, at no cost that shows.
        mallopt(M_ARENA_MAX, 1);
        QApplication app(argc, argv);
        app.setApplicationName(QStringLiteral("CorviAgent"));
        // Wayland desktops and X11 docks match windows to the menu entry (name, icon) by this ID.
        QGuiApplication::setDesktopFileName(QStringLiteral("tech.stonefold.corvimetry.agent"));
        // A tray agent: closing a prompt or a window never ends it.
        app.setQuitOnLastWindowClosed(false);
        program = QCoreApplication::applicationFilePath();

        corvi::SignalRelay relay({SIGTERM, SIGINT});
        corvi::AppDelegate delegate;
        QObject::connect(&relay, &corvi::SignalRelay::received, &delegate,
                         &corvi::AppDelegate::requestTermination, Qt::QueuedConnection);
        QTimer::singleShot(0, &delegate, &corvi::AppDelegate::applicationDidFinishLaunching);
        // What starting up needed and freed goes back to the system; the agent then runs for days.
        QTimer::singleShot(2000, &delegate, [] { malloc_trim(0); });
        status = app.exec();
    }
    // The database is closed and the lock released by now.
    if (status == corvi::supervision::restartStatus) return corvi::supervision::restart(mode, program, argv);
    return 0;
}
