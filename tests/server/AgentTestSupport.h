#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <functional>
#include <ostream>

#include "capture/SessionRow.h"

namespace corvi::test {

// Serves the event loop until `done` holds or `ms` pass; answers `done()`.
inline bool waitFor(const std::function<bool()>& done, int ms = 5000) {
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < ms) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(1);
    }
    return done();
}

// Serves the event loop for `ms`, for "nothing more happens" checks.
inline void settle(int ms) {
    waitFor([] { return false; }, ms);
}

inline SessionRow sessionRow(double start, std::int64_t samples = 4) {
    SessionRow row;
    row.startTS = start;
    row.endTS = start + 3.0 * double(samples);
    row.bundleID = QStringLiteral("org.gimp.GIMP");
    row.appName = QStringLiteral("GIMP");
    row.windowTitle = QStringLiteral("poster \u00e9t\u00e9 \"final\".xcf");
    row.category = AppCategory::work;
    row.state = ActivityState::working;
    row.sumCPU = 41.5 * double(samples);
    row.maxCPU = 97.25;
    row.samples = samples;
    row.idleAtEnd = 1.125;
    return row;
}

}  // namespace corvi::test

// Readable QString values in test failure messages.
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
