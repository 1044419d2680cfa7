#pragma once

#include <cstdio>

#include "bench/BenchUtil.h"
#include "platform/ActiveWindow.h"
#include "platform/IdleMonitor.h"

namespace corvi::bench {

// What one sampler tick asks the probes, the lock call included or not. The answer only
// keeps the calls from being optimised away.
inline int probeRound(ActiveWindow& window, IdleMonitor& idle, bool withLock = true) {
    const auto info = window.current();
    int sink = info ? static_cast<int>(info->windowTitle.size()) : 0;
    sink += static_cast<int>(idle.idleSeconds());
    if (withLock) sink += idle.screenLocked() ? 1 : 0;
    return sink;
}

// Reports the median round with the lock call and without it, as "<prefix>probe round ...".
inline int reportRounds(const QString& prefix, ActiveWindow& window, IdleMonitor& idle, int rounds) {
    int sink = 0;
    report(qPrintable(prefix + "probe round, median"),
           medianNanos(rounds, [&] { sink += probeRound(window, idle); }) / 1000.0, "us", "< 500 us");
    report(qPrintable(prefix + "probe round without the lock call, median"),
           medianNanos(rounds, [&] { sink += probeRound(window, idle, false); }) / 1000.0, "us");
    return sink;
}

// Says on stderr why the bench cannot run; answers its exit code.
inline int fail(const char* why, const QString& detail = {}) {
    std::fprintf(stderr, "%s%s\n", why, qPrintable(detail));
    return 1;
}

}  // namespace corvi::bench
