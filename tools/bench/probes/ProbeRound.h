#pragma once

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

}  // namespace corvi::bench
