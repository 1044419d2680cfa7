#include <QApplication>
#include <QTimer>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "BuildConfig.h"
#include "platform/Display.h"
#include "platform/Paths.h"
#include "shell/AppDelegate.h"
#include "shell/InstanceLock.h"
#include "shell/SignalRelay.h"

namespace {

QByteArray versionText() {
    QByteArray text = QByteArray("CorviAgent ") + corvi::build::version;
    if (*corvi::build::buildNumber) text += QByteArray(" (") + corvi::build::buildNumber + ')';
    return text;
}

const char* const usage =
    "Usage: corviagent [--version | --help]\n"
    "\n"
    "The Corvimetry desktop agent. It lives in the system tray, samples the foreground\n"
    "application every 3 seconds, keeps sessions in a local database and uploads them to\n"
    "the organisation's server. It needs an X11 display.\n"
    "\n"
    "  --version   print the version and exit\n"
    "  --help      print this text and exit\n";

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("%s\n", versionText().constData());
            return 0;
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(usage, stdout);
            return 0;
        }
        std::fprintf(stderr, "corviagent: unknown option %s\n%s", argv[i], usage);
        return 2;
    }

    QString why;
    if (!corvi::displayReachable(&why)) {
        std::fprintf(stderr, "corviagent: %s. The agent runs in an X11 desktop session.\n",
                     why.toLocal8Bit().constData());
        return 1;
    }

    corvi::InstanceLock lock(corvi::dataFolder() + QStringLiteral("/corviagent.lock"));
    if (!lock.acquired()) {
        if (lock.holderPid() > 0)
            std::fprintf(stderr, "corviagent: already running for this user (pid %ld).\n", lock.holderPid());
        else
            std::fprintf(stderr, "corviagent: already running for this user.\n");
        return 1;
    }

    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("CorviAgent"));
    // A tray agent: closing a prompt or a window never ends it.
    app.setQuitOnLastWindowClosed(false);

    corvi::AppDelegate delegate;
    corvi::SignalRelay relay({SIGTERM, SIGINT});
    QObject::connect(&relay, &corvi::SignalRelay::received, &delegate,
                     &corvi::AppDelegate::requestTermination, Qt::QueuedConnection);
    QTimer::singleShot(0, &delegate, &corvi::AppDelegate::applicationDidFinishLaunching);
    app.exec();
    return 0;
}
