#include "support/XServer.h"

#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/XClient.h"

#include <QElapsedTimer>
#include <QThread>

namespace corvi::test {
XServer::XServer(bool windowManager, const QStringList& serverArgs) {
    const QStringList args{"-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp", "-noreset"};
    bool number = false;
    const int n = startForFirstLine(xvfb_, "Xvfb", args + serverArgs).toInt(&number);
    if (!number) return;
    display_ = QStringLiteral(":%1").arg(n);
    if (!windowManager) return;

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DISPLAY", display_);
    wm_ = ClientWindow("openbox", {"--sm-disable"}, env);
    // openbox announces itself before it manages windows; a window mapped in between is never shown.
    QElapsedTimer clock;
    clock.start();
    bool managed = false;
    while (!managed && wm_.ok() && clock.elapsed() < 10000) {
        XClient c(display_);
        managed = c.hasWindowManager() && c.framesNewWindows(500);
        if (!managed) QThread::msleep(20);
    }
    if (!managed) display_.clear();
}

XServer::~XServer() {
    stopServer();
}

void XServer::stopWindowManager() {
    wm_.close();
    waitFor([&] { return !XClient(display_).hasWindowManager(); });
}

void XServer::stopServer() {
    wm_.close();
    stop(xvfb_);
}

}  // namespace corvi::test
