#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <functional>

#include "support/QtPrinters.h"

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

}  // namespace corvi::test
