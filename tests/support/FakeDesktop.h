#pragma once

#include <map>

#include "platform/ActiveWindow.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/IdleMonitor.h"

namespace corvi::test {

// Time moved by hand.
struct HandClock final : Clock {
    double now() const override { return time; }
    double time = 1'800'000'000;
};

// The foreground, idle time and lock state a test sets; counts the probe reads.
struct FakeDesktop final : ActiveWindow, IdleMonitor {
    std::optional<Info> current() override { return ++reads, front; }
    QString focusedWindowTitle(std::int32_t) override { return front ? front->windowTitle : QString(); }
    double idleSeconds() override { return ++reads, idle; }
    bool screenLocked() override { return ++reads, locked; }

    std::optional<Info> front = Info{"com.adobe.Photoshop", "Adobe Photoshop", 42, "Untitled-1"};
    double idle = 0;
    bool locked = false;
    int reads = 0;
};

// Cumulative CPU per pid as the test sets it; an unset pid is a failed query. Counts queries.
struct FakeCpu final : CpuTimeSource {
    std::optional<std::uint64_t> cpuNanos(std::int32_t pid) override {
        ++queries;
        const auto it = totals.find(pid);
        return it == totals.end() ? std::nullopt : std::optional(it->second);
    }
    std::map<std::int32_t, std::uint64_t> totals;
    int queries = 0;
};

}  // namespace corvi::test
